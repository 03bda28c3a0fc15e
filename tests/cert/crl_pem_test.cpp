// PEM text of CRLs: what the writer produces against the openssl command,
// and the reader on texts of several blocks, marker precedence, failures,
// generated marker soups against the plain rule, and long texts.
#include <chrono>
#include <cstring>
#include <ctime>
#include <iterator>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "files.h"
#include "layer_fixture.h"
#include "recording_owner.h"
#include "test_pki.h"
#include "toolkit_bytes.h"

using namespace qxtest;

namespace {

class CrlPemTest : public LayerTest {
  protected:
    void SetUp() override {
        LayerTest::SetUp();
        for (unsigned char serial : {0x01, 0x02, 0x03}) {
            CrlOptions recipe;
            recipe.revoked = {revoked_serial({serial})};
            ders_.push_back(make_crl(shared_issuer(), recipe));
        }
    }

    // The PEM text the writer makes for ders_[i].
    std::string pem_of(size_t i) {
        CrlObject* crl = nullptr;
        EXPECT_EQ(qxcrl_CreateCtx(ctx_, &crl, ders_[i].data(), size_of(ders_[i])), 0u);
        char* text = nullptr;
        uint32_t length = 0;
        EXPECT_EQ(qxcrl_GetBase64(ctx_, crl, &text, &length), 0u);
        std::string pem(text, length);
        qxumfree(ctx_, &text);
        qxcrl_Destroy(ctx_, &crl);
        return pem;
    }

    // A block of ders_[i] between the given markers, the body as the writer lays it out.
    std::string block(size_t i, const char* begin, const char* end) {
        const std::string pem = pem_of(i);
        const size_t from = std::strlen(QX_STR_CRL_HEADER);
        const size_t to = pem.size() - std::strlen(QX_STR_CRL_FOOTER3);
        return begin + pem.substr(from, to - from) + end + "\n";
    }

    // Delivers text and returns the status; the DER of what the owner got in delivered.
    StatusCode read(Owner& owner, const std::string& text, std::vector<Bytes>& delivered) {
        trace_.clear();
        const StatusCode status = qxcrl_SetB64Crl(&owner.owner, text.c_str(), 0);
        for (size_t i = 0; i < Owner::calls.size(); ++i) {
            if (Owner::accepted(i))
                delivered.push_back(toolkit_bytes(Owner::calls[i].first->crl, R_CRL_to_binary));
        }
        owner.release_accepted(ctx_);
        return status;
    }

    static uint32_t size_of(const Bytes& bytes) { return static_cast<uint32_t>(bytes.size()); }

    // The trace records since the last clear, one line each.
    std::vector<std::string> trace_lines() const {
        std::vector<std::string> lines;
        for (const TraceEntry& entry : trace_.entries())
            lines.push_back(std::to_string(entry.kind) + " " + entry.function + " " +
                            std::to_string(entry.level) + " " + entry.messageId + " " + entry.text);
        return lines;
    }

    std::vector<Bytes> ders_;
};

const char* const begin_markers[] = {QX_STR_CRL_HEADER, QX_STR_CRL_HEADER1, QX_STR_CRL_HEADER2,
                                     QX_STR_CRL_HEADER3};
const char* const end_markers[] = {QX_STR_CRL_FOOTER, QX_STR_CRL_FOOTER1, QX_STR_CRL_FOOTER2,
                                   QX_STR_CRL_FOOTER3};

// The marker that the plain rule picks from position on: the first of
// markers, in order, that occurs anywhere there, at its first occurrence.
const char* plain_search(const char* position, const char* const (&markers)[4],
                         const char** marker) {
    for (const char* candidate : markers) {
        if (const char* found = std::strstr(position, candidate)) {
            *marker = candidate;
            return found;
        }
    }
    return nullptr;
}

// The bodies that the block rule finds in a text, written out plainly with
// every marker searched for afresh at every step, and whether the rule ran
// out of markers: no begin marker at all, or one with no end after it.
struct PlainBlocks {
    std::vector<std::string> bodies;
    bool markerMissing = false;
};

PlainBlocks plain_blocks(const char* text) {
    PlainBlocks found;
    const char* marker = nullptr;
    const char* begin = plain_search(text, begin_markers, &marker);
    found.markerMissing = begin == nullptr;
    while (begin != nullptr && !found.markerMissing) {
        const char* body = begin + std::strlen(marker);
        const char* end = plain_search(body, end_markers, &marker);
        if (end == nullptr)
            found.markerMissing = true;
        else
            found.bodies.emplace_back(body, end);
        begin = plain_search(body, begin_markers, &marker);
    }
    return found;
}

// What qxcrl_SetB64Crl must keep doing, however it finds its blocks: the
// plain rule's bodies delivered one by one through qxcrl_SetDERCrl until one
// fails, with the records qxcrl_SetB64Crl writes.
StatusCode plain_read(CrlCacheOwner* owner, const char* text) {
    SecurityContext* ctx = owner->parent->securityContext;
    qxu_init_trace(ctx, "qxcrl_SetB64Crl", 5);
    const PlainBlocks blocks = plain_blocks(text);
    StatusCode status = 0;
    for (size_t i = 0; i < blocks.bodies.size() && status == 0; ++i) {
        unsigned char* der = nullptr;
        uint32_t length = 0;
        const std::string& body = blocks.bodies[i];
        status =
            qxbc_b64_to_der(ctx, body.data(), static_cast<uint32_t>(body.size()), &der, &length);
        if (status == 0)
            status = qxcrl_SetDERCrl(owner, der, length);
        qxumfree(ctx, &der);
    }
    if (status == 0 && blocks.markerMissing) {
        qxu_print_trace(ctx, "qxcrl_SetB64Crl", 1, qx0264trc);
        status = QXERR_CRL_DECODE;
    }
    qxu_exit_trace(ctx, "qxcrl_SetB64Crl", 5);
    return status;
}

} // namespace

TEST_F(CrlPemTest, WriterOutputIsWhatOpensslReads) {
    const std::string pem = pem_of(0);
    const std::string header = QX_STR_CRL_HEADER, footer = QX_STR_CRL_FOOTER3;
    EXPECT_EQ(pem.rfind(header, 0), 0u);
    EXPECT_EQ(pem.substr(pem.size() - footer.size()), footer);
    EXPECT_EQ(footer, "-----END X509 CRL-----\n");
    // The length counts the markers and the body exactly; the NUL follows it.
    char* base64 = nullptr;
    uint32_t base64Length = 0;
    ASSERT_EQ(qxbc_der_to_b64(ctx_, ders_[0].data(), size_of(ders_[0]), &base64, &base64Length),
              0u);
    EXPECT_EQ(pem, header + std::string(base64, base64Length) + footer);
    qxumfree(ctx_, &base64);

    TempDir dir;
    write_text(dir / "crl.pem", pem);
    ASSERT_EQ(run_in(dir.path(), "openssl crl -in crl.pem -outform DER -out crl.der"), 0);
    EXPECT_EQ(read_file(dir / "crl.der"), ders_[0]);
    EXPECT_TRUE(trace_.entries().empty());
}

TEST_F(CrlPemTest, ReadsOpensslPemWithEitherLineEnd) {
    TempDir dir;
    write_file(dir / "crl.der", ders_[1]);
    ASSERT_EQ(run_in(dir.path(), "openssl crl -inform DER -in crl.der -out crl.pem"), 0);
    const Bytes lf = read_file(dir / "crl.pem");
    std::string text(lf.begin(), lf.end()), crlf;
    for (char c : text)
        crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    for (const std::string& form : {text, crlf}) {
        Owner owner(ctx_);
        std::vector<Bytes> delivered;
        EXPECT_EQ(read(owner, form, delivered), 0u);
        EXPECT_EQ(delivered, std::vector<Bytes>{ders_[1]});
    }
}

TEST_F(CrlPemTest, ThreeBlocksInOrderInsideOneFrame) {
    Owner owner(ctx_);
    std::vector<Bytes> delivered;
    // Text around and between blocks is ignored; the length argument is not consulted.
    const std::string text = "comment\n" + pem_of(0) + "between\n" + pem_of(1) + pem_of(2) + "end";
    EXPECT_EQ(read(owner, text, delivered), 0u);
    EXPECT_EQ(delivered, ders_);

    std::vector<std::pair<uint32_t, std::string>> frame;
    for (const TraceEntry& entry : trace_.entries())
        frame.emplace_back(entry.kind, entry.function);
    const std::pair<uint32_t, std::string> enterB64{QX_TRACE_ENTRY, "qxcrl_SetB64Crl"},
        exitB64{QX_TRACE_EXIT, "qxcrl_SetB64Crl"}, enterDer{QX_TRACE_ENTRY, "qxcrl_SetDERCrl"},
        exitDer{QX_TRACE_EXIT, "qxcrl_SetDERCrl"};
    EXPECT_EQ(frame,
              (std::vector<std::pair<uint32_t, std::string>>{enterB64, enterDer, exitDer, enterDer,
                                                             exitDer, enterDer, exitDer, exitB64}));
}

TEST_F(CrlPemTest, FailuresKeepWhatCameBefore) {
    {
        SCOPED_TRACE("no begin marker: raw DER bytes");
        Owner owner(ctx_);
        std::vector<Bytes> delivered;
        const std::string raw(ders_[0].begin(), ders_[0].end());
        EXPECT_EQ(read(owner, raw, delivered), QXERR_CRL_DECODE);
        EXPECT_TRUE(delivered.empty());
        const std::vector<TraceEntry> messages = trace_.messages();
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_EQ(messages[0].messageId, "qx0264trc");
        EXPECT_EQ(messages[0].function, "qxcrl_SetB64Crl");
        EXPECT_EQ(messages[0].level, 1u);
    }
    {
        SCOPED_TRACE("a begin marker with no end after it");
        Owner owner(ctx_);
        std::vector<Bytes> delivered;
        EXPECT_EQ(read(owner, pem_of(0) + QX_STR_CRL_HEADER + "\nMIIB\n", delivered),
                  QXERR_CRL_DECODE);
        EXPECT_EQ(delivered, std::vector<Bytes>{ders_[0]});
        ASSERT_EQ(trace_.messages().size(), 1u);
        EXPECT_EQ(trace_.messages()[0].messageId, "qx0264trc");
    }
    {
        SCOPED_TRACE("second body not Base64: third never read");
        Owner owner(ctx_);
        std::vector<Bytes> delivered;
        std::string second = pem_of(1);
        second.insert(std::strlen(QX_STR_CRL_HEADER) + 10, "!");
        EXPECT_EQ(read(owner, pem_of(0) + second + pem_of(2), delivered), QXL_ERR_BASE64);
        EXPECT_EQ(delivered, std::vector<Bytes>{ders_[0]});
        EXPECT_EQ(trace_.count(QX_TRACE_ENTRY, "qxcrl_SetDERCrl"), 1u);
    }
    {
        SCOPED_TRACE("second body Base64 of something that is no CRL");
        Owner owner(ctx_);
        std::vector<Bytes> delivered;
        const std::string notACrl =
            std::string(QX_STR_CRL_HEADER) + "\nMAMCAQE=\n" + QX_STR_CRL_FOOTER3;
        EXPECT_EQ(read(owner, pem_of(0) + notACrl + pem_of(2), delivered), QXERR_CRL_DECODE);
        EXPECT_EQ(delivered, std::vector<Bytes>{ders_[0]});
        ASSERT_EQ(trace_.messages().size(), 1u);
        EXPECT_EQ(trace_.messages()[0].messageId, "qx0249trc");
        EXPECT_EQ(trace_.messages()[0].function, "qxcrl_SetDERCrl");
    }
    {
        SCOPED_TRACE("the owner refuses the second");
        Owner owner(ctx_);
        Owner::answer = QXERR_CACHE_FULL;
        Owner::refuseFrom = 2;
        std::vector<Bytes> delivered;
        EXPECT_EQ(read(owner, pem_of(0) + pem_of(1) + pem_of(2), delivered), QXERR_CACHE_FULL);
        EXPECT_EQ(Owner::calls.size(), 0u);                 // released by read()
        EXPECT_EQ(delivered, std::vector<Bytes>{ders_[0]}); // offered two, kept one
    }
}

TEST_F(CrlPemTest, MarkerPrecedence) {
    {
        SCOPED_TRACE("the primary begin marker wins wherever it is");
        Owner owner(ctx_);
        std::vector<Bytes> delivered;
        const std::string text = block(0, QX_STR_CRL_HEADER1, QX_STR_CRL_FOOTER1) +
                                 block(1, QX_STR_CRL_HEADER, QX_STR_CRL_FOOTER);
        EXPECT_EQ(read(owner, text, delivered), 0u);
        EXPECT_EQ(delivered, std::vector<Bytes>{ders_[1]});
    }
    {
        SCOPED_TRACE("the primary end marker wins wherever it is");
        Owner owner(ctx_);
        std::vector<Bytes> delivered;
        const std::string text = block(0, QX_STR_CRL_HEADER1, QX_STR_CRL_FOOTER1) +
                                 block(1, QX_STR_CRL_HEADER1, QX_STR_CRL_FOOTER);
        // The first body runs to the second block's end, markers included.
        EXPECT_EQ(read(owner, text, delivered), QXL_ERR_BASE64);
        EXPECT_TRUE(delivered.empty());
    }
    {
        SCOPED_TRACE("each label read with its own end");
        using Markers = std::pair<const char*, const char*>;
        for (auto [begin, end] : {Markers{QX_STR_CRL_HEADER1, QX_STR_CRL_FOOTER1},
                                  Markers{QX_STR_CRL_HEADER2, QX_STR_CRL_FOOTER2},
                                  Markers{QX_STR_CRL_HEADER3, QX_STR_CRL_FOOTER3}}) {
            Owner owner(ctx_);
            std::vector<Bytes> delivered;
            EXPECT_EQ(read(owner, block(2, begin, end) + block(0, begin, end), delivered), 0u);
            EXPECT_EQ(delivered, (std::vector<Bytes>{ders_[2], ders_[0]})) << begin;
        }
    }
}

TEST_F(CrlPemTest, ArgumentsAndAllocationSweeps) {
    CrlObject empty{nullptr};
    char* text = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(qxcrl_GetBase64(ctx_, &empty, &text, &length), QXERR_BAD_PARAMETER);
    EXPECT_EQ(qxcrl_GetBase64(nullptr, &empty, &text, &length), QXERR_BAD_PARAMETER);
    EXPECT_EQ(text, nullptr);

    CrlObject* crl = nullptr;
    ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl, ders_[0].data(), size_of(ders_[0])), 0u);
    const std::string expected = pem_of(0);
    sweep_allocations([&] { return qxcrl_GetBase64(ctx_, crl, &text, &length); },
                      [&](StatusCode status, bool injected) {
                          EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
                          EXPECT_EQ(text == nullptr, injected);
                          if (!injected) {
                              EXPECT_EQ(std::string(text, length), expected);
                          }
                          qxumfree(ctx_, &text);
                      });
    qxcrl_Destroy(ctx_, &crl);

    Owner owner(ctx_);
    const std::string three = pem_of(0) + pem_of(1) + pem_of(2);
    sweep_allocations([&] { return qxcrl_SetB64Crl(&owner.owner, three.c_str(), 0); },
                      [&](StatusCode status, bool injected) {
                          EXPECT_EQ(status, injected ? QXL_ERR_OUT_OF_MEMORY : 0u);
                          // Every CRL before the failure was delivered, and only those.
                          if (!injected) {
                              EXPECT_EQ(Owner::calls.size(), 3u);
                          }
                          owner.release_accepted(ctx_);
                      });
}

TEST_F(CrlPemTest, MarkerSoupsReadAsThePlainRuleReadsThem) {
    // Bodies: the three CRLs, Base64 of something that is no CRL, no Base64, nothing.
    std::vector<std::string> bodies;
    for (size_t i = 0; i < ders_.size(); ++i) {
        const std::string pem = pem_of(i);
        const size_t from = std::strlen(QX_STR_CRL_HEADER);
        bodies.push_back(pem.substr(from, pem.size() - std::strlen(QX_STR_CRL_FOOTER3) - from));
    }
    for (const char* other : {"\nMAMCAQE=\n", "\n!!\n", ""})
        bodies.emplace_back(other);
    // Text between blocks, and marker tails that make a marker overlap the one before.
    const char* const between[] = {"\n",
                                   "comment\n",
                                   "-----",
                                   "----",
                                   "-----BEGIN ",
                                   "-----END X509",
                                   "-----BEGIN CRL----",
                                   "X509 CRL-----\n",
                                   "BEGIN CRL-----",
                                   "BEGIN X509 CRL-----",
                                   "END CRL-----",
                                   "\r\n"};
    std::mt19937 generator(2024);
    auto pick = [&generator](size_t count) {
        return std::uniform_int_distribution<size_t>(0, count - 1)(generator);
    };
    auto body = [&] { return bodies[pick(10) < 8 ? pick(3) : 3 + pick(3)]; };
    // An end label, or none at all one time in eight.
    auto end = [&] { return pick(8) == 0 ? std::string() : std::string(end_markers[pick(4)]); };

    size_t manyDelivered = 0, decodeFailures = 0, base64Failures = 0;
    for (int soup = 0; soup < 5000; ++soup) {
        std::string text;
        for (size_t part = 0, parts = 1 + pick(6); part < parts; ++part) {
            switch (pick(5)) {
            case 0: // a begin nested in a block
                text += begin_markers[pick(4)] + body() + begin_markers[pick(4)] + body() + end();
                break;
            case 1:
                text += between[pick(std::size(between))];
                break;
            case 2:
                text += begin_markers[pick(4)];
                break;
            default:
                text += begin_markers[pick(4)] + body() + end() + (pick(2) == 0 ? "\n" : "");
            }
        }
        SCOPED_TRACE("soup " + std::to_string(soup) + ":\n" + text);
        Owner owner(ctx_);
        std::vector<Bytes> delivered, expected;
        const StatusCode status = read(owner, text, delivered);
        const std::vector<std::string> trace = trace_lines();

        trace_.clear();
        const StatusCode plainStatus = plain_read(&owner.owner, text.c_str());
        for (size_t i = 0; i < Owner::calls.size(); ++i)
            expected.push_back(toolkit_bytes(Owner::calls[i].first->crl, R_CRL_to_binary));
        owner.release_accepted(ctx_);
        ASSERT_EQ(status, plainStatus);
        ASSERT_EQ(delivered, expected);
        ASSERT_EQ(trace, trace_lines());

        manyDelivered += status == 0 && delivered.size() > 1;
        decodeFailures += status == QXERR_CRL_DECODE;
        base64Failures += status == QXL_ERR_BASE64;
    }
    // The soups reach every outcome often.
    EXPECT_GT(manyDelivered, 100u);
    EXPECT_GT(decodeFailures, 200u);
    EXPECT_GT(base64Failures, 200u);
}

namespace {

// The processor time this thread has used.
std::chrono::nanoseconds thread_cpu_time() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

// A cache owner that counts what it is given and lets it go at once, so
// that a text of very many CRLs needs no room for them.
struct CountingOwner {
    static inline size_t accepted = 0;
    static inline SecurityContext* context = nullptr;

    static StatusCode accept(CrlObject* crl, CrlCache*) {
        ++accepted;
        return qxcrl_Destroy(context, &crl);
    }

    explicit CountingOwner(SecurityContext* ctx) : parent{"tests", nullptr, ctx} {
        accepted = 0;
        context = ctx;
    }

    LayerComponent parent;
    CrlCache cache{};
    CrlCacheOwner owner{&parent, &CountingOwner::accept, &cache};
};

} // namespace

TEST_F(CrlPemTest, ManyBlocksUnderOtherLabelsReadInLinearTime) {
    const Bytes der = make_crl(shared_issuer(), CrlOptions{});
    CrlObject* crl = nullptr;
    ASSERT_EQ(qxcrl_CreateCtx(ctx_, &crl, der.data(), size_of(der)), 0u);
    char* pem = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(qxcrl_GetBase64(ctx_, crl, &pem, &length), 0u);
    const std::string writer(pem, length);
    qxumfree(ctx_, &pem);
    qxcrl_Destroy(ctx_, &crl);
    const size_t from = std::strlen(QX_STR_CRL_HEADER);
    const std::string body =
        writer.substr(from, writer.size() - std::strlen(QX_STR_CRL_FOOTER3) - from);

    // Labels whose begin and end markers are both outranked by markers that
    // never come: each block used to cost two searches of the rest of the text.
    constexpr size_t blocks = 100000;
    for (size_t label : {1, 2}) {
        SCOPED_TRACE(begin_markers[label]);
        std::string text;
        text.reserve(blocks * (body.size() + 100));
        for (size_t i = 0; i < blocks; ++i)
            text += begin_markers[label] + body + end_markers[label] + "\n";
        CountingOwner owner(ctx_);
        trace_.clear();
        const std::chrono::nanoseconds started = thread_cpu_time();
        EXPECT_EQ(qxcrl_SetB64Crl(&owner.owner, text.c_str(), 0), 0u);
        const std::chrono::nanoseconds took = thread_cpu_time() - started;
        EXPECT_EQ(CountingOwner::accepted, blocks);
        // About a second when linear, several under sanitizers; the quadratic
        // search took minutes. Processor time, so that a busy machine does
        // not count against it.
        EXPECT_LT(took, std::chrono::seconds(30));
    }
}
