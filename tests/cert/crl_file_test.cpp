// CRL files through the layer's file interface: one-CRL files in DER and
// PEM, files of several PEM CRLs, every failing step of the file layer,
// short reads, a file that shrinks, special files, the size limit, and
// allocation failures.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "cert/module_internal.h"
#include "faulty_files.h"
#include "files.h"
#include "layer_fixture.h"
#include "recording_owner.h"
#include "test_pki.h"
#include "toolkit_bytes.h"
#include "watchdog.h"

using namespace qxtest;

namespace {

class CrlFileTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        for (unsigned char serial : {0x01, 0x02, 0x03}) {
            CrlOptions recipe;
            recipe.revoked = {revoked_serial({serial})};
            ders_.push_back(make_crl(shared_issuer(), recipe));
        }
        write_file(dir_ / "crl.der", ders_[0]);
        ASSERT_EQ(run_in(dir_.path(), "openssl crl -inform DER -in crl.der -out crl.pem"), 0);
    }
    void TearDown() override {
        qxcrl_Destroy(ctx_, &crl_);
        LayerTest::TearDown();
    }

    std::string path(const std::string& name) const { return (dir_ / name).string(); }
    std::string text(const std::string& name) const {
        const Bytes bytes = read_file(dir_ / name);
        return std::string(bytes.begin(), bytes.end());
    }
    // Loads name with qxcrl_Load; on success the DER of the record in der.
    StatusCode load(const std::string& name, Bytes* der = nullptr) {
        qxcrl_Destroy(ctx_, &crl_);
        trace_.clear();
        const StatusCode status = qxcrl_Load(ctx_, &crl_, path(name).c_str());
        if (status == 0 && der != nullptr)
            *der = toolkit_bytes(crl_->crl, R_CRL_to_binary);
        return status;
    }
    // Loads name with qxcrl_LoadConcatCRL; the DER of each CRL delivered.
    StatusCode load_concat(const std::string& name, std::vector<Bytes>& delivered) {
        Owner owner(ctx_);
        trace_.clear();
        const StatusCode status = qxcrl_LoadConcatCRL(&owner.owner, path(name).c_str());
        for (size_t i = 0; i < Owner::calls.size(); ++i) {
            if (Owner::accepted(i))
                delivered.push_back(toolkit_bytes(Owner::calls[i].first->crl, R_CRL_to_binary));
        }
        owner.release_accepted(ctx_);
        return status;
    }
    std::vector<std::string> messages_with_ids() const {
        std::vector<std::string> found;
        for (const TraceEntry& entry : trace_.messages())
            found.push_back(entry.function + ":" + std::to_string(entry.level) + ":" +
                            (entry.messageId.empty() ? entry.text : entry.messageId));
        return found;
    }

    TempDir dir_;
    std::vector<Bytes> ders_;
    CrlObject* crl_ = nullptr;
};

} // namespace

TEST_F(CrlFileTest, OneCrlFilesInDerAndPem) {
    Bytes der;
    EXPECT_EQ(load("crl.der", &der), 0u);
    EXPECT_EQ(der, ders_[0]);
    EXPECT_EQ(trace_.count(QX_TRACE_ENTRY, "qxcrlLOC_LoadCRL"), 1u);
    EXPECT_EQ(trace_.count(QX_TRACE_ENTRY, "qxcrlGetCRLFromFile"), 1u);
    EXPECT_TRUE(trace_.messages().empty());

    // What openssl writes, with LF and with CRLF line ends.
    std::string crlf;
    for (char c : text("crl.pem"))
        crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    write_text(dir_ / "crlf.pem", crlf);
    for (const char* name : {"crl.pem", "crlf.pem"}) {
        EXPECT_EQ(load(name, &der), 0u) << name;
        EXPECT_EQ(der, ders_[0]) << name;
        std::vector<Bytes> delivered;
        EXPECT_EQ(load_concat(name, delivered), 0u) << name;
        EXPECT_EQ(delivered, std::vector<Bytes>{ders_[0]}) << name;
    }

    // Two CRLs: the one-CRL loader takes the first.
    CrlObject* second = nullptr;
    ASSERT_EQ(
        qxcrl_CreateCtx(ctx_, &second, ders_[1].data(), static_cast<uint32_t>(ders_[1].size())),
        0u);
    char* pem = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(qxcrl_GetBase64(ctx_, second, &pem, &length), 0u);
    write_text(dir_ / "two.pem", text("crl.pem") + std::string(pem, length));
    qxumfree(ctx_, &pem);
    qxcrl_Destroy(ctx_, &second);
    EXPECT_EQ(load("two.pem", &der), 0u);
    EXPECT_EQ(der, ders_[0]);
    std::vector<Bytes> delivered;
    EXPECT_EQ(load_concat("two.pem", delivered), 0u);
    EXPECT_EQ(delivered, (std::vector<Bytes>{ders_[0], ders_[1]}));

    // The wrapper is the same operation, trace names included.
    qxcrl_Destroy(ctx_, &crl_);
    trace_.clear();
    EXPECT_EQ(qxcrlLOC_LoadCRL(ctx_, &crl_, path("crl.der").c_str()), 0u);
    EXPECT_EQ(trace_.count(QX_TRACE_ENTRY, "qxcrlLOC_LoadCRL"), 1u);
    EXPECT_EQ(trace_.count(QX_TRACE_EXIT, "qxcrlLOC_LoadCRL"), 1u);
}

TEST_F(CrlFileTest, WhichLoaderReadsWhichFile) {
    const std::string dirPath = dir_.path().string();
    {
        SCOPED_TRACE("a DER file is no PEM text");
        std::vector<Bytes> delivered;
        EXPECT_EQ(load_concat("crl.der", delivered), QXERR_CRL_DECODE);
        EXPECT_TRUE(delivered.empty());
        EXPECT_EQ(messages_with_ids(),
                  (std::vector<std::string>{"qxcrl_SetB64Crl:1:qx0264trc",
                                            "qxcrl_LoadConcatCRL:1:qx0266trc"}));
        EXPECT_EQ(trace_.messages()[1].text, catalogue_text(qx0266trc, path("crl.der").c_str()));
    }
    {
        SCOPED_TRACE("other begin labels are only for files of several CRLs");
        std::string other = text("crl.pem");
        other.replace(0, std::strlen(QX_STR_CRL_HEADER), QX_STR_CRL_HEADER1);
        other.replace(other.find(QX_STR_CRL_FOOTER), std::strlen(QX_STR_CRL_FOOTER),
                      QX_STR_CRL_FOOTER1);
        write_text(dir_ / "other.pem", other);
        EXPECT_EQ(load("other.pem"), QXERR_CRL_DECODE);
        EXPECT_EQ(messages_with_ids(), std::vector<std::string>{"qxcrl_Load:1:qx0249trc"});
        ASSERT_NE(crl_, nullptr);
        EXPECT_EQ(crl_->crl, nullptr);
        std::vector<Bytes> delivered;
        EXPECT_EQ(load_concat("other.pem", delivered), 0u);
        EXPECT_EQ(delivered, std::vector<Bytes>{ders_[0]});
    }
    {
        SCOPED_TRACE("a begin marker with no end");
        std::string cut = text("crl.pem");
        cut.resize(cut.find(QX_STR_CRL_FOOTER));
        write_text(dir_ / "cut.pem", cut);
        qxcrl_Destroy(ctx_, &crl_);
        trace_.clear();
        EXPECT_EQ(qxcrl_Load(ctx_, &crl_, path("cut.pem").c_str()), QXERR_CRL_DECODE);
        EXPECT_EQ(crl_, nullptr); // no record was made
        EXPECT_EQ(messages_with_ids(), std::vector<std::string>{"qxcrlLOC_LoadCRL:1:qx0264trc"});
    }
    {
        SCOPED_TRACE("an empty file");
        write_text(dir_ / "empty", "");
        unsigned char* buffer = nullptr;
        uint32_t length = 99;
        EXPECT_EQ(qxcrlGetCRLFromFile(ctx_, path("empty").c_str(), &buffer, &length), 0u);
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(buffer[0], 0);
        EXPECT_EQ(length, 0u);
        qxumfree(ctx_, &buffer);
        EXPECT_EQ(load("empty"), QXERR_CRL_DECODE);
        EXPECT_EQ(messages_with_ids(), std::vector<std::string>{"qxcrl_Load:1:qx0249trc"});
        std::vector<Bytes> delivered;
        EXPECT_EQ(load_concat("empty", delivered), QXERR_CRL_DECODE);
    }
    {
        SCOPED_TRACE("missing arguments");
        trace_.clear();
        EXPECT_EQ(qxcrl_Load(ctx_, &crl_, nullptr), QXERR_BAD_PARAMETER);
        EXPECT_EQ(qxcrl_Load(nullptr, &crl_, path("crl.der").c_str()), QXERR_BAD_PARAMETER);
        Owner owner(ctx_);
        EXPECT_EQ(qxcrl_LoadConcatCRL(&owner.owner, nullptr), QXERR_BAD_PARAMETER);
        EXPECT_EQ(trace_.count(QX_TRACE_ENTRY, "qxcrlLOC_LoadCRL"), 0u);
        EXPECT_EQ(trace_.count(QX_TRACE_EXIT, "qxcrlLOC_LoadCRL"), 2u);
        EXPECT_EQ(trace_.count(QX_TRACE_ENTRY, "qxcrl_LoadConcatCRL"), 0u);
        EXPECT_EQ(trace_.count(QX_TRACE_EXIT, "qxcrl_LoadConcatCRL"), 1u);
    }
}

TEST_F(CrlFileTest, EveryFileLayerFailure) {
    const std::string file = path("crl.der");
    struct Case {
        FaultyFiles::Step step;
        uint32_t level;
        std::string text;
    };
    const std::vector<Case> cases = {
        {FaultyFiles::Step::MakeName, 2, "dsk api failed to open crl file: " + file + "\n"},
        {FaultyFiles::Step::SetUp, 2,
         "dsk api failed in setting up mode opening the crl file: " + file + "\n"},
        {FaultyFiles::Step::Size, 2,
         "dsk api failed in calculating file length of crl: " + file + "\n"},
        {FaultyFiles::Step::Open, 2, "dsk api dskopn failed for crl: " + file + "\n"},
        {FaultyFiles::Step::Read, 5,
         "read from crl " + file + " failed with error " +
             std::to_string(FaultyFiles::default_read_result) + "\n"},
        {FaultyFiles::Step::Close, 2, "dsk close failed with error:28759 for crl: " + file + "\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        FaultyFiles files;
        files.fail(c.step);
        ctx_->layerContext->fileContext = files.table();
        unsigned char* buffer = nullptr;
        uint32_t length = 99;
        trace_.clear();
        EXPECT_EQ(qxcrlGetCRLFromFile(ctx_, file.c_str(), &buffer, &length), QXERR_FILE_IO);
        EXPECT_EQ(length, 0u);
        qxumfree(ctx_, &buffer); // the caller's, whatever happened
        const std::vector<TraceEntry> messages = trace_.messages();
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_EQ(messages[0].function, "qxcrlGetCRLFromFile");
        EXPECT_EQ(messages[0].level, c.level);
        EXPECT_EQ(messages[0].text, c.text);
        EXPECT_TRUE(files.balanced()) << "a name or file object was not released";

        // The whole loader passes the status on and cleans up.
        files.fail(c.step);
        EXPECT_EQ(load("crl.der"), QXERR_FILE_IO);
        EXPECT_EQ(crl_, nullptr);
    }

    // What the file layer is asked for.
    FaultyFiles files;
    ctx_->layerContext->fileContext = files.table();
    EXPECT_EQ(load("crl.der"), 0u);
    ASSERT_EQ(files.make_name_calls().size(), 1u);
    EXPECT_EQ(files.make_name_calls()[0].directory, nullptr);
    EXPECT_EQ(files.make_name_calls()[0].path, file);
    EXPECT_EQ(files.make_name_calls()[0].flags, 0u);
    EXPECT_EQ(files.make_name_calls()[0].kind, 1u);
    ASSERT_EQ(files.set_up_calls().size(), 1u);
    const FaultyFiles::SetUpCall& setUp = files.set_up_calls()[0];
    EXPECT_EQ(std::vector<uint32_t>(
                  {setUp.access, setUp.sharing, setUp.mode, setUp.bufferSize, setUp.sequential}),
              std::vector<uint32_t>({1, 2, 0x40, 0xE000, 1}));
    EXPECT_EQ(setUp.description, "File in Read Mode");
    EXPECT_TRUE(files.balanced());
}

TEST_F(CrlFileTest, PiecesShrinkingAndOversizedFiles) {
    const Bytes whole = read_file(dir_ / "crl.pem");
    for (uint32_t piece : {1u, 2u, 3u, 7u, 64u, 1000u}) {
        SCOPED_TRACE("pieces of " + std::to_string(piece));
        FaultyFiles files;
        files.piece_size(piece);
        ctx_->layerContext->fileContext = files.table();
        unsigned char* buffer = nullptr;
        uint32_t length = 0;
        ASSERT_EQ(qxcrlGetCRLFromFile(ctx_, path("crl.pem").c_str(), &buffer, &length), 0u);
        EXPECT_EQ(Bytes(buffer, buffer + length), whole);
        EXPECT_EQ(buffer[length], 0);
        EXPECT_GE(files.reads(), (whole.size() + piece - 1) / piece);
        qxumfree(ctx_, &buffer);
    }
    {
        SCOPED_TRACE("the file shrank after its size was taken");
        FaultyFiles files;
        files.extra_size(10);
        ctx_->layerContext->fileContext = files.table();
        unsigned char* buffer = nullptr;
        uint32_t length = 0;
        trace_.clear();
        EXPECT_EQ(qxcrlGetCRLFromFile(ctx_, path("crl.pem").c_str(), &buffer, &length),
                  QXERR_FILE_IO);
        EXPECT_EQ(length, 0u);
        qxumfree(ctx_, &buffer);
        ASSERT_EQ(trace_.messages().size(), 1u);
        EXPECT_EQ(trace_.messages()[0].text,
                  "read from crl " + path("crl.pem") + " failed with error 0\n");
        EXPECT_TRUE(files.balanced());
    }
    {
        SCOPED_TRACE("a size whose buffer would not fit 32 bits");
        FaultyFiles files;
        files.extra_size(uint64_t{UINT32_MAX});
        ctx_->layerContext->fileContext = files.table();
        unsigned char* buffer = nullptr;
        uint32_t length = 0;
        trace_.clear();
        EXPECT_EQ(qxcrlGetCRLFromFile(ctx_, path("crl.pem").c_str(), &buffer, &length),
                  QXERR_FILE_IO);
        EXPECT_EQ(buffer, nullptr); // refused before any memory was asked for
        EXPECT_EQ(files.reads(), 0u);
        EXPECT_TRUE(files.balanced());
    }
    {
        SCOPED_TRACE("a path that does not exist, on the real file layer");
        ctx_->layerContext->fileContext = qxfile_posix_interface();
        EXPECT_EQ(load("no-such-file"), QXERR_FILE_IO);
        ASSERT_EQ(trace_.messages().size(), 1u);
        EXPECT_NE(trace_.messages()[0].text.find(path("no-such-file")), std::string::npos);
    }
}

TEST_F(CrlFileTest, SpecialFilesAndTheSizeLimit) {
    make_fifo(dir_ / "fifo");
    std::filesystem::create_directory(dir_ / "directory");
    for (const std::string& special : {path("fifo"), std::string("/dev/zero"), path("directory")}) {
        SCOPED_TRACE(special);
        EXPECT_EQ(result_within(std::chrono::seconds(10),
                                [&] {
                                    CrlObject* crl = nullptr;
                                    return qxcrl_Load(ctx_, &crl, special.c_str());
                                }),
                  QXERR_FILE_IO);
        EXPECT_EQ(load(special), QXERR_FILE_IO);
        EXPECT_EQ(crl_, nullptr);
    }

    // A file exactly at the limit loads; a file one byte over is refused
    // before any memory is asked for, and the trace names the file and limit.
    const auto size = static_cast<uint32_t>(ders_[0].size());
    layer()->maxFileBytes = size;
    Bytes der;
    EXPECT_EQ(load("crl.der", &der), 0u);
    EXPECT_EQ(der, ders_[0]);
    make_sparse_file(dir_ / "over.der", size + 1);
    const uint64_t allocations = qxum_allocation_count(layer());
    EXPECT_EQ(load("over.der"), QXERR_FILE_IO);
    EXPECT_EQ(qxum_allocation_count(layer()), allocations);
    EXPECT_EQ(crl_, nullptr);
    const std::string tooLarge = "crl file too large to read: " + path("over.der") + " (" +
                                 std::to_string(size + 1) + " bytes, limit " +
                                 std::to_string(size) + ")\n";
    ASSERT_EQ(trace_.messages().size(), 1u);
    EXPECT_EQ(trace_.messages()[0].function, "qxcrlGetCRLFromFile");
    EXPECT_EQ(trace_.messages()[0].level, 2u);
    EXPECT_EQ(trace_.messages()[0].text, tooLarge);
    std::vector<Bytes> delivered;
    EXPECT_EQ(load_concat("over.der", delivered), QXERR_FILE_IO);
    EXPECT_TRUE(delivered.empty());
    EXPECT_EQ(trace_.messages()[0].text, tooLarge);

    // With the default limit, a sparse file one byte over 256 MiB is refused
    // just as fast.
    layer()->maxFileBytes = QX_DEFAULT_MAX_FILE_BYTES;
    make_sparse_file(dir_ / "over.der", uint64_t{QX_DEFAULT_MAX_FILE_BYTES} + 1);
    EXPECT_EQ(load("over.der"), QXERR_FILE_IO);
    EXPECT_EQ(qxum_allocation_count(layer()), allocations);
}

TEST_F(CrlFileTest, AllocationFailureSweeps) {
    for (const char* name : {"crl.der", "crl.pem"}) {
        SCOPED_TRACE(name);
        sweep_allocations([&] { return qxcrl_Load(ctx_, &crl_, path(name).c_str()); },
                          [&](StatusCode status, bool injected) {
                              EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
                              EXPECT_EQ(crl_ != nullptr, !injected);
                              qxcrl_Destroy(ctx_, &crl_);
                          });
    }
    std::string three;
    for (const Bytes& der : ders_) {
        CrlObject* crl = nullptr;
        ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl, der.data(), static_cast<uint32_t>(der.size())), 0u);
        char* pem = nullptr;
        uint32_t length = 0;
        ASSERT_EQ(qxcrl_GetBase64(ctx_, crl, &pem, &length), 0u);
        three += std::string(pem, length);
        qxumfree(ctx_, &pem);
        qxcrl_Destroy(ctx_, &crl);
    }
    write_text(dir_ / "three.pem", three);
    Owner owner(ctx_);
    sweep_allocations([&] { return qxcrl_LoadConcatCRL(&owner.owner, path("three.pem").c_str()); },
                      [&](StatusCode status, bool injected) {
                          EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
                          if (!injected) {
                              EXPECT_EQ(Owner::calls.size(), 3u);
                          }
                          owner.release_accepted(ctx_);
                      });
}
