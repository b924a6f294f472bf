// The daemon's digests against OpenSSL's one-shot ones, for files on both
// sides of its read size, from several threads at once.
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Digests.h"

namespace {

std::string Hex(const uint8_t* bytes, size_t length) {
    std::string out;
    char pair[3];
    for (size_t i = 0; i < length; ++i) {
        std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
        out += pair;
    }
    return out;
}

std::string Reference(const char* name, const std::vector<unsigned char>& data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), digest, &length, EVP_get_digestbyname(name), nullptr);
    return Hex(digest, length);
}

TEST(ZorvdDigests, MatchOneShotDigestsForEverySizeFromManyThreads) {
    const size_t kChunk = 1 << 18;  // what the daemon reads at a time
    const size_t sizes[] = {0, 1, 36 * 1024, kChunk - 1, kChunk, kChunk + 1, 3 * kChunk + 5};
    char folder[] = "/tmp/zorvd-digests-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    struct File {
        std::string path;
        std::string sha256, sha1, md5;
    };
    std::vector<File> files;
    std::mt19937 random(7);
    for (const size_t size : sizes) {
        std::vector<unsigned char> data(size);
        for (unsigned char& byte : data) byte = static_cast<unsigned char>(random());
        File file{std::string(folder) + "/" + std::to_string(size), Reference("SHA256", data),
                  Reference("SHA1", data), Reference("MD5", data)};
        const int fd = open(file.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
        close(fd);
        files.push_back(file);
    }

    std::vector<std::string> failures[4];
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 20; ++round) {
                zorvd::Digests ignored;
                if (zorvd::ComputeDigests(-1, ignored)) failures[t].push_back("a bad descriptor was hashed");
                for (size_t i = 0; i < files.size(); ++i) {
                    const File& file = files[(i + static_cast<size_t>(t)) % files.size()];
                    const int fd = open(file.path.c_str(), O_RDONLY);
                    zorvd::Digests got;
                    if (!zorvd::ComputeDigests(fd, got)) failures[t].push_back(file.path + ": not hashed");
                    close(fd);
                    if (Hex(got.sha256, 32) != file.sha256 || Hex(got.sha1, 20) != file.sha1 ||
                        Hex(got.md5, 16) != file.md5)
                        failures[t].push_back(file.path + ": wrong digests");
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (const auto& list : failures)
        for (const std::string& failure : list) ADD_FAILURE() << failure;
    for (const File& file : files) unlink(file.path.c_str());
    rmdir(folder);
}

}  // namespace
