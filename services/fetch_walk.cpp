// Walks per thread in a small fixed table: beginning a walk allocates
// nothing, so it cannot fail, and a walk that finds no room only loses the
// sharing of its budget, never a bound.
#include "fetch_walk.h"

#include <array>

#include "ldap_settings.h"

namespace {

struct OpenWalk {
    const SecurityContext* ctx = nullptr; // nullptr: the slot is free
    uint32_t depth = 0;                   // begun this many times, not yet ended
    qxfetch::Budget budget;
};

constexpr size_t walks_per_thread = 8;

thread_local std::array<OpenWalk, walks_per_thread> open_walks;

OpenWalk* find(const SecurityContext* ctx) {
    for (OpenWalk& walk : open_walks) {
        if (walk.ctx == ctx)
            return &walk;
    }
    return nullptr;
}

} // namespace

namespace qxfetch {

Budget fresh_budget(const SecurityContext* ctx) {
    const QxLdapFetchSettings& settings = qxldap::settings_of(ctx);
    Budget budget;
    budget.deadline = Clock::now() + std::chrono::milliseconds(settings.walkTimeoutMs);
    budget.maxBytes = settings.maxBytes;
    budget.maxValues = settings.maxValues;
    return budget;
}

Budget* walk_budget(const SecurityContext* ctx) {
    OpenWalk* walk = ctx == nullptr ? nullptr : find(ctx);
    return walk == nullptr ? nullptr : &walk->budget;
}

} // namespace qxfetch

extern "C" void qxldap_begin_walk(SecurityContext* ctx) {
    if (ctx == nullptr || ctx->layerContext == nullptr)
        return;
    OpenWalk* walk = find(ctx);
    if (walk == nullptr && (walk = find(nullptr)) != nullptr) {
        walk->ctx = ctx;
        walk->budget = qxfetch::fresh_budget(ctx);
    }
    if (walk != nullptr)
        ++walk->depth;
}

extern "C" void qxldap_end_walk(SecurityContext* ctx) {
    OpenWalk* walk = ctx == nullptr ? nullptr : find(ctx);
    if (walk != nullptr && --walk->depth == 0)
        *walk = OpenWalk{};
}
