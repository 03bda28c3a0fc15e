// The default file table on real files, and the fault-injecting table where
// its behaviour is not plain from its header.
#include <filesystem>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "faulty_files.h"
#include "files.h"
#include "layer_fixture.h"
#include "test_pki.h"
#include "watchdog.h"

using namespace qxtest;

namespace {

size_t open_descriptors() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

Bytes random_bytes(size_t count) {
    std::mt19937 generator(5);
    Bytes bytes(count);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(generator());
    return bytes;
}

// Reads the named file through a table, asking for `wanted` bytes at a time;
// the status of the first step that fails, or 0.
struct WholeRead {
    int status = 0;
    uint64_t size = 0;
    Bytes bytes;
    uint32_t calls = 0;
};

WholeRead read_whole(const QxFileInterface* files, const std::string& path, uint32_t wanted) {
    WholeRead result;
    void* name = files->dskmknam(files, nullptr, path.c_str(), 0, 0);
    EXPECT_NE(name, nullptr);
    void* file = files->dsklini(files, 1, 0, 0, 0, 1, "test file");
    EXPECT_NE(file, nullptr);
    result.status = files->dsklenn(files, name, &result.size);
    if (result.status == 0)
        result.status = files->dskopn(files, file, name);
    while (result.status == 0) {
        Bytes piece(wanted);
        const int64_t got = files->dskrd(files, file, piece.data(), wanted);
        ++result.calls;
        if (got < 0)
            result.status = static_cast<int>(got);
        if (got <= 0)
            break;
        EXPECT_LE(got, static_cast<int64_t>(wanted));
        result.bytes.insert(result.bytes.end(), piece.begin(), piece.begin() + got);
    }
    EXPECT_EQ(files->dskcls(files, file), 0);
    files->dskfno(files, name);
    return result;
}

TEST(PosixFiles, ReadsARegularFileWholeInPieces) {
    TempDir dir;
    const Bytes content = random_bytes(100000);
    write_file(dir / "crl.der", content);
    const size_t descriptors = open_descriptors();
    for (const uint32_t wanted : {1u, 4096u, 7001u, 1u << 20}) {
        SCOPED_TRACE("wanted " + std::to_string(wanted));
        const WholeRead read =
            read_whole(qxfile_posix_interface(), (dir / "crl.der").string(), wanted);
        EXPECT_EQ(read.status, 0);
        EXPECT_EQ(read.size, content.size());
        EXPECT_EQ(read.bytes, content);
    }
    EXPECT_EQ(open_descriptors(), descriptors);

    // Bytes that text mode would change come through as they are.
    const Bytes binary = {'\r', '\n', 0x1A, 0x00, '\n', '\r', 0xFF};
    write_file(dir / "binary.bin", binary);
    EXPECT_EQ(read_whole(qxfile_posix_interface(), (dir / "binary.bin").string(), 64).bytes,
              binary);
}

TEST(PosixFiles, EmptyFileReadsAsEndAtOnce) {
    TempDir dir;
    write_file(dir / "empty", {});
    const WholeRead read = read_whole(qxfile_posix_interface(), (dir / "empty").string(), 16);
    EXPECT_EQ(read.status, 0);
    EXPECT_EQ(read.size, 0u);
    EXPECT_TRUE(read.bytes.empty());
    EXPECT_EQ(read.calls, 1u);
}

TEST(PosixFiles, MissingPathsAndDirectoriesAreRefused) {
    TempDir dir;
    const QxFileInterface* files = qxfile_posix_interface();
    std::filesystem::create_directory(dir / "sub");
    const size_t descriptors = open_descriptors();
    for (const std::string& path : {(dir / "missing.crl").string(), (dir / "sub").string()}) {
        SCOPED_TRACE(path);
        void* name = files->dskmknam(files, nullptr, path.c_str(), 0, 0);
        ASSERT_NE(name, nullptr);
        uint64_t size = 77;
        EXPECT_NE(files->dsklenn(files, name, &size), 0);
        EXPECT_EQ(size, 77u);
        void* file = files->dsklini(files, 1, 0, 0, 0, 1, nullptr);
        ASSERT_NE(file, nullptr);
        EXPECT_NE(files->dskopn(files, file, name), 0);
        unsigned char byte = 0;
        EXPECT_LT(files->dskrd(files, file, &byte, 1), 0);
        // An object that never opened is still released by close.
        EXPECT_EQ(files->dskcls(files, file), 0);
        files->dskfno(files, name);
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(files->dskmknam(files, nullptr, nullptr, 0, 0), nullptr);
    EXPECT_EQ(files->dskcls(files, nullptr), 0);
    files->dskfno(files, nullptr);
}

TEST(PosixFiles, SpecialFilesAreRefusedWithoutWaiting) {
    TempDir dir;
    make_fifo(dir / "fifo");
    const QxFileInterface* files = qxfile_posix_interface();
    const size_t descriptors = open_descriptors();
    for (const std::string& path :
         {(dir / "fifo").string(), std::string("/dev/zero"), std::string("/dev/null")}) {
        SCOPED_TRACE(path);
        void* name = files->dskmknam(files, nullptr, path.c_str(), 0, 0);
        ASSERT_NE(name, nullptr);
        uint64_t size = 0;
        EXPECT_NE(files->dsklenn(files, name, &size), 0);
        // Opened as if a regular file had stood there when the size was
        // taken: a FIFO must not wait for a writer that never comes.
        void* file = files->dsklini(files, 1, 0, 0, 0, 1, nullptr);
        const std::optional<uint32_t> opened = result_within(std::chrono::seconds(10), [&] {
            return static_cast<uint32_t>(files->dskopn(files, file, name));
        });
        ASSERT_TRUE(opened.has_value()) << "dskopn did not return";
        EXPECT_NE(*opened, 0u);
        EXPECT_NE(files->dskopn(files, file, name), 0);
        EXPECT_EQ(files->dskcls(files, file), 0);
        files->dskfno(files, name);
    }
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(PosixFiles, CloseReleasesTheDescriptorAndASecondOpenIsRefused) {
    TempDir dir;
    write_file(dir / "crl.der", {0x30, 0x00});
    const QxFileInterface* files = qxfile_posix_interface();
    const size_t descriptors = open_descriptors();
    void* name = files->dskmknam(files, nullptr, (dir / "crl.der").c_str(), 0, 0);
    void* file = files->dsklini(files, 1, 0, 0, 0, 1, "crl");
    ASSERT_EQ(files->dskopn(files, file, name), 0);
    EXPECT_EQ(open_descriptors(), descriptors + 1);
    EXPECT_NE(files->dskopn(files, file, name), 0);
    EXPECT_EQ(open_descriptors(), descriptors + 1);
    EXPECT_EQ(files->dskcls(files, file), 0);
    files->dskfno(files, name);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(FaultyFiles, ShortReadsAndAShrunkFile) {
    TempDir dir;
    const Bytes content = random_bytes(1000);
    write_file(dir / "crl.der", content);
    FaultyFiles faulty;
    faulty.piece_size(300);
    faulty.extra_size(24);
    const WholeRead read = read_whole(faulty.table(), (dir / "crl.der").string(), 4096);
    EXPECT_EQ(read.status, 0);
    // The size is 24 more than the file holds, yet the reads end at 1000.
    EXPECT_EQ(read.size, 1024u);
    EXPECT_EQ(read.bytes, content);
    EXPECT_EQ(read.calls, 5u); // 300, 300, 300, 100, end
    EXPECT_TRUE(faulty.balanced());
    EXPECT_EQ(faulty.files_opened(), 1u);
    ASSERT_EQ(faulty.make_name_calls().size(), 1u);
    EXPECT_EQ(faulty.make_name_calls()[0].path, (dir / "crl.der").string());
    ASSERT_EQ(faulty.set_up_calls().size(), 1u);
    EXPECT_EQ(faulty.set_up_calls()[0].description, "test file");
    EXPECT_EQ(faulty.set_up_calls()[0].sequential, 1u);
}

TEST(FaultyFiles, FailsOnlyTheChosenCall) {
    TempDir dir;
    write_file(dir / "crl.der", random_bytes(100));
    const std::string path = (dir / "crl.der").string();
    FaultyFiles faulty;
    faulty.piece_size(10);
    faulty.fail(FaultyFiles::Step::Read, 3, -9);
    WholeRead read = read_whole(faulty.table(), path, 64);
    EXPECT_EQ(read.status, -9);
    EXPECT_EQ(read.bytes.size(), 20u);
    // The failure was used up: the next whole read goes through.
    read = read_whole(faulty.table(), path, 64);
    EXPECT_EQ(read.status, 0);
    EXPECT_EQ(read.bytes.size(), 100u);

    // A failing close still releases the file object and its descriptor.
    const size_t descriptors = open_descriptors();
    faulty.fail(FaultyFiles::Step::Close);
    const QxFileInterface* files = faulty.table();
    void* name = files->dskmknam(files, nullptr, path.c_str(), 0, 0);
    void* file = files->dsklini(files, 1, 0, 0, 0, 1, "crl");
    ASSERT_EQ(files->dskopn(files, file, name), 0);
    EXPECT_NE(files->dskcls(files, file), 0);
    files->dskfno(files, name);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_TRUE(faulty.balanced());
    EXPECT_EQ(faulty.names_made(), 3u);
    EXPECT_EQ(faulty.files_closed(), 3u);

    // Failed make and set-up calls make nothing, so nothing is owed.
    faulty.fail(FaultyFiles::Step::MakeName);
    faulty.fail(FaultyFiles::Step::SetUp);
    EXPECT_EQ(files->dskmknam(files, nullptr, path.c_str(), 0, 0), nullptr);
    EXPECT_EQ(files->dsklini(files, 1, 0, 0, 0, 1, "crl"), nullptr);
    EXPECT_TRUE(faulty.balanced());
    EXPECT_EQ(faulty.make_name_calls().size(), 4u);
}

} // namespace
