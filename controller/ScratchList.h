#pragma once

#include <cstddef>
#include <vector>

namespace android {

// A list that is filled and emptied once per frame and keeps its elements'
// storage across frames: clear() only forgets the count, and push_back()
// copy-assigns into an old slot, so strings with enough capacity are reused
// and a steady frame allocates nothing.
template <typename T>
class ScratchList {
public:
    void clear() { mSize = 0; }

    void push_back(const T& value) {
        if (mSize < mSlots.size()) {
            mSlots[mSize] = value;
        } else {
            mSlots.push_back(value);
        }
        ++mSize;
    }

    size_t size() const { return mSize; }
    bool empty() const { return mSize == 0; }
    T& operator[](size_t i) { return mSlots[i]; }
    const T& operator[](size_t i) const { return mSlots[i]; }
    const T* begin() const { return mSlots.data(); }
    const T* end() const { return mSlots.data() + mSize; }

private:
    std::vector<T> mSlots;
    size_t mSize = 0;
};

} // namespace android
