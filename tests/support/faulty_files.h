// A file interface for module tests: the POSIX table underneath, with any one
// step made to fail, reads cut into short pieces, a size reported larger than
// the file holds, and a record of every call and of what was made and
// released.
//
//     FaultyFiles files;
//     files.fail(FaultyFiles::Step::Read, 2, -5); // second read returns -5
//     ctx->layerContext->fileContext = files.table();
//     ... run the module ...
//     EXPECT_TRUE(files.balanced());
//
// The object must outlive every use of its table. Not thread-safe.
#ifndef QXCRL_TESTS_SUPPORT_FAULTY_FILES_H
#define QXCRL_TESTS_SUPPORT_FAULTY_FILES_H

#include <cstdint>
#include <string>
#include <vector>

#include "qxlayer.h"

namespace qxtest {

class FaultyFiles {
  public:
    // One per function of the table.
    enum class Step { MakeName, SetUp, Size, Open, Read, Close };

    // What a failing step does: MakeName and SetUp return NULL without making
    // anything; Size and Open return non-zero (Open leaves the file unopened);
    // Read returns readResult without reading; Close still closes and
    // releases the file object but returns non-zero.
    static constexpr int64_t default_read_result = -5;

    struct MakeNameCall {
        void* directory;
        std::string path; // empty for a NULL path
        bool pathGiven;
        uint32_t flags;
        uint32_t kind;
    };

    struct SetUpCall {
        uint32_t access;
        uint32_t sharing;
        uint32_t mode;
        uint32_t bufferSize;
        uint32_t sequential;
        std::string description; // empty for a NULL description
        bool descriptionGiven;
    };

    FaultyFiles();
    FaultyFiles(const FaultyFiles&) = delete;
    FaultyFiles& operator=(const FaultyFiles&) = delete;

    // Makes call number `call` (1 is the next one) of step fail once; calls
    // before and after it go through. Each step is armed on its own; call 0
    // disarms it.
    void fail(Step step, uint32_t call = 1, int64_t readResult = default_read_result);

    // Reads deliver at most this many bytes each (0: no limit).
    void piece_size(uint32_t bytes) { pieceSize_ = bytes; }

    // Size reports this many bytes more than the file holds, as if the file
    // shrank between the size and the reads: reads end with 0 early.
    void extra_size(uint64_t bytes) { extraSize_ = bytes; }

    // The table to install as a layer's fileContext.
    const QxFileInterface* table() const { return &table_; }

    // Name objects made by MakeName and released by the release function.
    uint32_t names_made() const { return namesMade_; }
    uint32_t names_freed() const { return namesFreed_; }
    // File objects made by SetUp, and Close calls on a file object.
    uint32_t files_set_up() const { return filesSetUp_; }
    uint32_t files_closed() const { return filesClosed_; }
    // Successful opens, and read calls whatever their result.
    uint32_t files_opened() const { return filesOpened_; }
    uint32_t reads() const { return reads_; }
    // Every name released and every file object closed.
    bool balanced() const { return namesMade_ == namesFreed_ && filesSetUp_ == filesClosed_; }

    const std::vector<MakeNameCall>& make_name_calls() const { return makeNameCalls_; }
    const std::vector<SetUpCall>& set_up_calls() const { return setUpCalls_; }

  private:
    struct Fault {
        uint32_t calls = 0;  // calls of the step since it was armed
        uint32_t failAt = 0; // 0: disarmed
        int64_t readResult = default_read_result;
    };

    static FaultyFiles& of(const QxFileInterface* files);
    // Counts a call of step; true when this call is the one to fail.
    bool fails(Step step);

    static void* on_make_name(const QxFileInterface* files, void* directory, const char* path,
                              uint32_t flags, uint32_t kind);
    static void* on_set_up(const QxFileInterface* files, uint32_t access, uint32_t sharing,
                           uint32_t mode, uint32_t bufferSize, uint32_t sequential,
                           const char* description);
    static int on_size(const QxFileInterface* files, void* name, uint64_t* bytes);
    static int on_open(const QxFileInterface* files, void* file, void* name);
    static int64_t on_read(const QxFileInterface* files, void* file, void* destination,
                           uint32_t wanted);
    static int on_close(const QxFileInterface* files, void* file);
    static void on_free_name(const QxFileInterface* files, void* name);

    QxFileInterface table_;
    Fault faults_[6];
    uint32_t pieceSize_ = 0;
    uint64_t extraSize_ = 0;
    uint32_t namesMade_ = 0;
    uint32_t namesFreed_ = 0;
    uint32_t filesSetUp_ = 0;
    uint32_t filesClosed_ = 0;
    uint32_t filesOpened_ = 0;
    uint32_t reads_ = 0;
    std::vector<MakeNameCall> makeNameCalls_;
    std::vector<SetUpCall> setUpCalls_;
};

} // namespace qxtest

#endif
