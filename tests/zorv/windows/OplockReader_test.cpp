// The Windows reader holds a read/handle-caching oplock and steps aside when
// another program opens the file for writing. Whether a volume grants oplocks
// is the platform's choice (Wine and some network file systems refuse them),
// so each test checks which path it is on and skips the other with a reason.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "TestSupport.h"
#include "ZorvLogger.h"
#include "platform/Platform.h"

namespace zorv::platform {
namespace {

using test::LogCapture;
using test::PathText;
using test::TempDir;

class WindowsReader : public ::testing::Test {
protected:
    void SetUp() override {
        ZorvLogger& logger = ZorvLogger::Instance();
        if (!logger.IsInitialized()) logger.InitLogger(&LogCapture::Callback, 0xF);
        logger.SetLevel(0xF);
        LogCapture::Instance().Clear();
        test::WriteFile(m_path, std::string(8 * 1024 * 1024, 'x'));
    }

    // True when the open fell back to a plain shared read.
    static bool OplocksRefused() {
        for (const auto& line : LogCapture::Instance().Lines())
            if (line.function == u"fileread" && line.message.find(u"Oplocks not supported") == 0) return true;
        return false;
    }

    TempDir m_dir;
    std::filesystem::path m_path = m_dir / "ruleset.json";
};

TEST_F(WindowsReader, AWriterBreaksTheOplockAndEndsTheRead) {
    OplockReader reader;
    ASSERT_TRUE(reader.Open(PathText(m_path))) << reader.Error();
    if (OplocksRefused()) GTEST_SKIP() << "this file system does not grant oplocks; covered on real Windows only";

    // The writer's open waits for the break to be acknowledged, which happens
    // when the reader closes: it must run beside the reading thread.
    std::thread writer([&] {
        HANDLE file = ::CreateFileW(m_path.wstring().c_str(), GENERIC_WRITE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file != INVALID_HANDLE_VALUE) ::CloseHandle(file);
    });
    ::Sleep(200);
    char buffer[4096];
    size_t total = 0;
    while (size_t got = reader.Read(buffer, sizeof buffer)) total += got;
    writer.join();

    EXPECT_LT(total, size_t{8 * 1024 * 1024});
    EXPECT_EQ(reader.Error(), kErrorSharingViolation);
    EXPECT_FALSE(reader.IsOpen());
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Interrupted oplock"));
}

TEST_F(WindowsReader, WithoutOplocksTheFileIsStillReadWhole) {
    OplockReader reader;
    ASSERT_TRUE(reader.Open(PathText(m_path))) << reader.Error();
    if (!OplocksRefused()) GTEST_SKIP() << "this file system grants oplocks; the fallback cannot be reached here";

    const auto lines = LogCapture::Instance().Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, uint32_t{kLogTrace});

    // Another program may write meanwhile; without an oplock the reader keeps going.
    HANDLE other = ::CreateFileW(m_path.wstring().c_str(), GENERIC_WRITE,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                 FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_NE(other, INVALID_HANDLE_VALUE);
    char buffer[64 * 1024];
    size_t total = 0;
    while (size_t got = reader.Read(buffer, sizeof buffer)) total += got;
    if (other != INVALID_HANDLE_VALUE) ::CloseHandle(other);

    EXPECT_EQ(total, size_t{8 * 1024 * 1024});
    EXPECT_EQ(reader.Error(), 0u);
    EXPECT_FALSE(reader.IsOpen());
}

}  // namespace
}  // namespace zorv::platform
