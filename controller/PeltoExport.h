#pragma once

// The library is built with hidden visibility; only what a compositor calls is
// exported: the entry points and PeltoController's public methods.
#define PELTO_EXPORT __attribute__((visibility("default")))
