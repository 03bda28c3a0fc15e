// The layer's trace service. A record goes to the context's sink when it has
// one, otherwise to the process-wide destination: a sink installed with
// qxu_set_default_trace, or stderr / QX_TRACE_FILE at QX_TRACE_LEVEL.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "qxlayer.h"

namespace {

// The level is read without the lock: most records are below it, and a
// status check on many threads must not queue on a mutex to learn that.
struct DefaultDestination {
    std::mutex lock;
    QxTraceSink sink = nullptr;
    void* sinkArg = nullptr;
    std::atomic<uint32_t> level{QX_TRACE_LEVEL_FROM_ENV};
    uint32_t environmentLevel = 0;
    FILE* file = nullptr; // NULL: stderr
};

DefaultDestination& destination() {
    static DefaultDestination* instance = [] {
        auto* made = new DefaultDestination;
        if (const char* level = std::getenv("QX_TRACE_LEVEL"))
            made->environmentLevel = static_cast<uint32_t>(std::strtoul(level, nullptr, 10));
        if (const char* path = std::getenv("QX_TRACE_FILE"))
            made->file = std::fopen(path, "a");
        return made;
    }();
    return *instance;
}

uint32_t resolve(uint32_t level, const DefaultDestination& fallback) {
    return level == QX_TRACE_LEVEL_FROM_ENV ? fallback.environmentLevel : level;
}

const char* kind_word(uint32_t kind) {
    switch (kind) {
    case QX_TRACE_ENTRY:
        return "enter";
    case QX_TRACE_EXIT:
        return "exit";
    default:
        return "";
    }
}

void write_line(FILE* out, const QxTraceRecord& record) {
    const char* text = record.kind == QX_TRACE_MESSAGE ? record.text : kind_word(record.kind);
    size_t length = std::strlen(text);
    if (length > 0 && text[length - 1] == '\n')
        --length;
    std::fprintf(out, "qxcrl L%u %s: %s%s%s%.*s\n", record.level, record.function,
                 record.messageId ? "[" : "", record.messageId ? record.messageId : "",
                 record.messageId ? "] " : "", static_cast<int>(length), text);
    std::fflush(out);
}

// Decides where a record at this level goes; false when nowhere.
struct Route {
    QxTraceSink sink = nullptr;
    void* sinkArg = nullptr;
    bool toDefault = false;
};

bool route(const SecurityContext* ctx, uint32_t level, Route& out) {
    DefaultDestination& fallback = destination();
    if (ctx != nullptr && ctx->traceSink != nullptr) {
        if (level > resolve(ctx->traceLevel, fallback))
            return false;
        out.sink = ctx->traceSink;
        out.sinkArg = ctx->traceSinkArg;
        return true;
    }
    const bool ownLevel = ctx != nullptr && ctx->traceLevel != QX_TRACE_LEVEL_FROM_ENV;
    auto limit = [&] {
        return ownLevel ? ctx->traceLevel
                        : resolve(fallback.level.load(std::memory_order_acquire), fallback);
    };
    if (level > limit())
        return false;
    std::lock_guard<std::mutex> guard(fallback.lock);
    // Asked again under the lock, so that a record goes to a sink only at
    // the level that sink was installed with.
    if (level > limit())
        return false;
    out.sink = fallback.sink;
    out.sinkArg = fallback.sinkArg;
    out.toDefault = true;
    return true;
}

void deliver(const Route& where, const QxTraceRecord& record) {
    if (!where.toDefault || where.sink != nullptr) {
        where.sink(where.sinkArg, &record);
        return;
    }
    DefaultDestination& fallback = destination();
    std::lock_guard<std::mutex> guard(fallback.lock);
    write_line(fallback.file != nullptr ? fallback.file : stderr, record);
}

void boundary(const SecurityContext* ctx, const char* function, uint32_t level, uint32_t kind) {
    Route where;
    if (!route(ctx, level, where))
        return;
    const QxTraceRecord record{ctx, function ? function : "", level, kind, nullptr, ""};
    deliver(where, record);
}

} // namespace

extern "C" void qxu_init_trace(const SecurityContext* ctx, const char* function, uint32_t level) {
    boundary(ctx, function, level, QX_TRACE_ENTRY);
}

extern "C" void qxu_exit_trace(const SecurityContext* ctx, const char* function, uint32_t level) {
    boundary(ctx, function, level, QX_TRACE_EXIT);
}

extern "C" void qxu_print_trace(const SecurityContext* ctx, const char* function, uint32_t level,
                                const char* format, ...) {
    Route where;
    if (format == nullptr || !route(ctx, level, where))
        return;
    const char* catalogueText = qxu_catalogue_text(format);
    const char* pattern = catalogueText != nullptr ? catalogueText : format;

    va_list args;
    va_start(args, format);
    va_list sizing;
    va_copy(sizing, args);
    const int needed = std::vsnprintf(nullptr, 0, pattern, sizing);
    va_end(sizing);
    std::string text(needed > 0 ? static_cast<size_t>(needed) : 0, '\0');
    if (needed > 0)
        std::vsnprintf(text.data(), text.size() + 1, pattern, args);
    va_end(args);

    const QxTraceRecord record{ctx,
                               function ? function : "",
                               level,
                               QX_TRACE_MESSAGE,
                               catalogueText != nullptr ? format : nullptr,
                               text.c_str()};
    deliver(where, record);
}

extern "C" void qxu_set_default_trace(QxTraceSink sink, void* arg, uint32_t level) {
    DefaultDestination& fallback = destination();
    std::lock_guard<std::mutex> guard(fallback.lock);
    fallback.sink = sink;
    fallback.sinkArg = arg;
    fallback.level.store(level, std::memory_order_release);
}
