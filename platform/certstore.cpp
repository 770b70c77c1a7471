// The replaceable process-wide implementations of the store and provider interfaces.
#include "platform/certstore.h"

#include "platform/providers.h"

namespace platform {

namespace {

// The installed implementation of interface A; null means the native one.
template <class A>
A*& installed() {
    static A* current = nullptr;
    return current;
}

template <class A>
A& current(A& native) {
    return installed<A>() ? *installed<A>() : native;
}

template <class A>
A* replace(A* impl, A& native) {
    A* previous = &current(native);
    installed<A>() = impl;
    return previous;
}

}  // namespace

namespace certstore {
Api::~Api() = default;
bool Api::beginBatch(Store) {
    return true;
}
bool Api::endBatch(Store, bool) {
    return true;
}
bool Api::atomicBatches() const {
    return false;
}
Api& api() {
    return current<Api>(native());
}
Api* install(Api* impl) {
    return replace(impl, native());
}
}  // namespace certstore

namespace providers {
Api::~Api() = default;
Api& api() {
    return current<Api>(native());
}
Api* install(Api* impl) {
    return replace(impl, native());
}
}  // namespace providers

}  // namespace platform
