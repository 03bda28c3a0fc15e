// The fault-injecting file table: each step counts its calls and may fail
// one of them; everything else goes to the POSIX table.
#include "faulty_files.h"

#include <algorithm>

namespace qxtest {

namespace {

const QxFileInterface& posix() {
    return *qxfile_posix_interface();
}

// The non-zero status a failing Size, Open or Close returns.
constexpr int injected_failure = 5;

} // namespace

FaultyFiles::FaultyFiles()
    : table_{on_make_name, on_set_up, on_size, on_open, on_read, on_close, on_free_name, this} {}

void FaultyFiles::fail(Step step, uint32_t call, int64_t readResult) {
    Fault& fault = faults_[static_cast<int>(step)];
    fault.calls = 0;
    fault.failAt = call;
    fault.readResult = readResult;
}

FaultyFiles& FaultyFiles::of(const QxFileInterface* files) {
    return *static_cast<FaultyFiles*>(files->state);
}

bool FaultyFiles::fails(Step step) {
    Fault& fault = faults_[static_cast<int>(step)];
    if (fault.failAt == 0)
        return false;
    return ++fault.calls == fault.failAt;
}

void* FaultyFiles::on_make_name(const QxFileInterface* files, void* directory, const char* path,
                                uint32_t flags, uint32_t kind) {
    FaultyFiles& self = of(files);
    self.makeNameCalls_.push_back(
        {directory, path != nullptr ? path : "", path != nullptr, flags, kind});
    if (self.fails(Step::MakeName))
        return nullptr;
    void* name = posix().dskmknam(&posix(), directory, path, flags, kind);
    self.namesMade_ += name != nullptr;
    return name;
}

void* FaultyFiles::on_set_up(const QxFileInterface* files, uint32_t access, uint32_t sharing,
                             uint32_t mode, uint32_t bufferSize, uint32_t sequential,
                             const char* description) {
    FaultyFiles& self = of(files);
    self.setUpCalls_.push_back({access, sharing, mode, bufferSize, sequential,
                                description != nullptr ? description : "", description != nullptr});
    if (self.fails(Step::SetUp))
        return nullptr;
    void* file =
        posix().dsklini(&posix(), access, sharing, mode, bufferSize, sequential, description);
    self.filesSetUp_ += file != nullptr;
    return file;
}

int FaultyFiles::on_size(const QxFileInterface* files, void* name, uint64_t* bytes) {
    FaultyFiles& self = of(files);
    if (self.fails(Step::Size))
        return injected_failure;
    const int status = posix().dsklenn(&posix(), name, bytes);
    if (status == 0)
        *bytes += self.extraSize_;
    return status;
}

int FaultyFiles::on_open(const QxFileInterface* files, void* file, void* name) {
    FaultyFiles& self = of(files);
    if (self.fails(Step::Open))
        return injected_failure;
    const int status = posix().dskopn(&posix(), file, name);
    self.filesOpened_ += status == 0;
    return status;
}

int64_t FaultyFiles::on_read(const QxFileInterface* files, void* file, void* destination,
                             uint32_t wanted) {
    FaultyFiles& self = of(files);
    ++self.reads_;
    if (self.fails(Step::Read))
        return self.faults_[static_cast<int>(Step::Read)].readResult;
    if (self.pieceSize_ != 0)
        wanted = std::min(wanted, self.pieceSize_);
    return posix().dskrd(&posix(), file, destination, wanted);
}

int FaultyFiles::on_close(const QxFileInterface* files, void* file) {
    FaultyFiles& self = of(files);
    self.filesClosed_ += file != nullptr;
    const bool failing = self.fails(Step::Close);
    const int status = posix().dskcls(&posix(), file);
    return failing ? injected_failure : status;
}

void FaultyFiles::on_free_name(const QxFileInterface* files, void* name) {
    FaultyFiles& self = of(files);
    self.namesFreed_ += name != nullptr;
    posix().dskfno(&posix(), name);
}

} // namespace qxtest
