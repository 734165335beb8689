/*
 * Host stand-in for libbinder's IBinder, for builds outside an Android tree.
 * Only what a layer handle needs: a reference-counted object that can be held
 * in an sp<> and compared by address. Same path, namespace and base class as
 * the platform header, so code written against one compiles against the other.
 */
#pragma once

#include <utils/RefBase.h>

namespace android {

class IBinder : public virtual RefBase {
protected:
    IBinder() = default;
    ~IBinder() override = default;
};

// A concrete binder object, as a host test or simulator creates one per layer.
class BBinder : public IBinder {
public:
    BBinder() = default;

protected:
    ~BBinder() override = default;
};

} // namespace android
