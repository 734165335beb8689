// Force-included by GCC host builds only. Clang's lock annotations mean
// nothing to GCC, which also cannot parse an annotation that names a member
// declared later in its class; clang builds check them instead.
#pragma once

#include <android-base/thread_annotations.h>

#undef THREAD_ANNOTATION_ATTRIBUTE__
#define THREAD_ANNOTATION_ATTRIBUTE__(x)
