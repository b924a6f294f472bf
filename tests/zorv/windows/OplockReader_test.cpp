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

constexpr size_t kFileSize = 8 * 1024 * 1024;

class WindowsReader : public ::testing::Test {
protected:
    void SetUp() override {
        ZorvLogger& logger = ZorvLogger::Instance();
        if (!logger.IsInitialized()) logger.InitLogger(&LogCapture::Callback, 0xF);
        logger.SetLevel(0xF);
        LogCapture::Instance().Clear();
        test::WriteFile(m_path, std::string(kFileSize, 'x'));
        ASSERT_TRUE(m_reader.Open(PathText(m_path))) << m_reader.Error();
        // The open logs when it fell back to a plain shared read.
        for (const auto& line : LogCapture::Instance().Lines())
            m_oplocksRefused |= line.function == u"fileread" && line.message.starts_with(u"Oplocks not supported");
    }

    // Another program opening the file for writing, sharing everything.
    HANDLE OpenForWriting() const {
        return ::CreateFileW(m_path.wstring().c_str(), GENERIC_WRITE,
                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING, 0, nullptr);
    }

    size_t ReadToEnd(size_t chunk) {
        std::string buffer(chunk, '\0');
        size_t total = 0;
        while (size_t got = m_reader.Read(buffer.data(), chunk)) total += got;
        return total;
    }

    TempDir m_dir;
    std::filesystem::path m_path = m_dir / "ruleset.json";
    OplockReader m_reader;
    bool m_oplocksRefused = false;
};

TEST_F(WindowsReader, AWriterBreaksTheOplockAndEndsTheRead) {
    if (m_oplocksRefused) GTEST_SKIP() << "this file system does not grant oplocks; covered on real Windows only";
    // The writer's open waits for the break to be acknowledged, which happens
    // when the reader closes: it must run beside the reading thread.
    std::thread writer([this] {
        HANDLE other = OpenForWriting();
        if (other != INVALID_HANDLE_VALUE) ::CloseHandle(other);
    });
    ::Sleep(200);
    EXPECT_LT(ReadToEnd(4096), kFileSize);
    writer.join();
    EXPECT_EQ(m_reader.Error(), kErrorSharingViolation);
    EXPECT_FALSE(m_reader.IsOpen());
}

TEST_F(WindowsReader, WithoutOplocksTheFileIsStillReadWhole) {
    if (!m_oplocksRefused) GTEST_SKIP() << "this file system grants oplocks; the fallback cannot be reached here";
    // Another program may write meanwhile; without an oplock the reader keeps going.
    HANDLE other = OpenForWriting();
    EXPECT_NE(other, INVALID_HANDLE_VALUE);
    EXPECT_EQ(ReadToEnd(64 * 1024), kFileSize);
    if (other != INVALID_HANDLE_VALUE) ::CloseHandle(other);
    EXPECT_EQ(m_reader.Error(), 0u);
    EXPECT_FALSE(m_reader.IsOpen());
}

}  // namespace
}  // namespace zorv::platform
