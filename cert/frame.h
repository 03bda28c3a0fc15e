// The pieces every operation's frame is built from: the toolkit library
// context of a SecurityContext, the entry/exit trace records, and owning
// handles for toolkit objects and layer blocks.
#ifndef QXCRL_CERT_FRAME_H
#define QXCRL_CERT_FRAME_H

#include "../toolkit/r_toolkit.h"
#include "qxcrl.h"
#include "trace_names.h"

namespace qxcrl {

// Looked up afresh at each creation: the layer may switch toolkitMode
// between calls.
inline R_LIB_CTX* toolkit_context(const SecurityContext* ctx) {
    const LayerContext* layer = ctx->layerContext;
    return layer->toolkitContexts[layer->toolkitMode == 1 ? 3 : 2];
}

// Writes the exit record when the operation returns. The entry record is
// written by enter() once the arguments have passed, so a call rejected for
// its arguments leaves an exit record only.
class TraceFrame {
  public:
    TraceFrame(const SecurityContext* ctx, const char* name) : ctx_(ctx), name_(name) {}
    TraceFrame(const TraceFrame&) = delete;
    TraceFrame& operator=(const TraceFrame&) = delete;
    ~TraceFrame() { qxu_exit_trace(ctx_, name_, trace::progress); }

    void enter() const { enter(name_); }
    void enter(const char* entryName) const { qxu_init_trace(ctx_, entryName, trace::progress); }

  private:
    const SecurityContext* ctx_;
    const char* name_;
};

// Frees a toolkit object when the operation ends, unless it was handed on.
template <typename T, int (*Free)(T*)> class ToolkitHandle {
  public:
    ToolkitHandle() = default;
    ToolkitHandle(const ToolkitHandle&) = delete;
    ToolkitHandle& operator=(const ToolkitHandle&) = delete;
    ~ToolkitHandle() {
        if (object_ != nullptr)
            Free(object_);
    }

    T** out() { return &object_; }
    T* get() const { return object_; }
    T* release() {
        T* handed = object_;
        object_ = nullptr;
        return handed;
    }

  private:
    T* object_ = nullptr;
};

using CrlHandle = ToolkitHandle<R_CRL, R_CRL_free>;
using CrlEntryHandle = ToolkitHandle<R_CRL_ENTRY, R_CRL_ENTRY_free>;
using NameHandle = ToolkitHandle<R_CERT_NAME, R_CERT_NAME_free>;
using TimeCtxHandle = ToolkitHandle<R_TIME_CTX, R_TIME_CTX_free>;
using TimeHandle = ToolkitHandle<R_TIME, R_TIME_free>;
using ExtHandle = ToolkitHandle<R_EXT, R_EXT_free>;
using PkeyHandle = ToolkitHandle<R_PKEY, R_PKEY_free>;

// A block of the layer's allocator, returned with qxumfree unless handed on.
template <typename T> class LayerBlock {
  public:
    LayerBlock(SecurityContext* ctx, void* block) : ctx_(ctx), block_(static_cast<T*>(block)) {}
    LayerBlock(const LayerBlock&) = delete;
    LayerBlock& operator=(const LayerBlock&) = delete;
    ~LayerBlock() { qxumfree(ctx_, &block_); }

    explicit operator bool() const { return block_ != nullptr; }
    T* operator->() const { return block_; }
    T* get() const { return block_; }
    T* release() {
        T* handed = block_;
        block_ = nullptr;
        return handed;
    }

  private:
    SecurityContext* ctx_;
    T* block_;
};

} // namespace qxcrl

#endif
