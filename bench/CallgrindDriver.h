#pragma once

namespace android::bench {

// Runs one operation a fixed number of times after its warm-up, each call in
// a function of its own ("measured" + the operation's name), so that
// callgrind's --toggle-collect counts exactly those calls:
//   pelto_bench --callgrind=<operation> [--calls=N] [--scene=REGISTERED,VISIBLE]
// Operations: compositeList, compositeListFloor (the scene, (256, 64) unless given),
// compositeApi, compositeApiFloor (64 visible), transaction, transactionFloor
// (batch of 1, the active target). Returns the exit code; unknown arguments
// list the operations.
int runCallgrindDriver(int argc, char** argv);

} // namespace android::bench
