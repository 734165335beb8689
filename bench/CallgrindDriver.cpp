#include "bench/CallgrindDriver.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/BenchHost.h"

namespace android::bench {
namespace {

constexpr int kDefaultCalls = 1000;
constexpr size_t kDefaultRegistered = 256;
constexpr size_t kDefaultVisible = 64;
constexpr size_t kApiVisible = 64;

// One function per operation, never inlined, for --toggle-collect.
__attribute__((noinline)) void measuredCompositeList(const ListModeRig& rig) {
    rig.composite();
}

__attribute__((noinline)) void measuredCompositeListFloor(
        const PeltoController::TraverseVisibleBufferLayers& traverse) {
    traverseBufferLayersFloor(traverse);
}

__attribute__((noinline)) void measuredCompositeApi(const ApiModeRig& rig) {
    rig.composite();
}

__attribute__((noinline)) void measuredCompositeApiFloor(
        const PeltoController::TraverseVisibleLayers& traverse) {
    traverseLayersFloor(traverse);
}

__attribute__((noinline)) void measuredTransaction(const Transaction& transaction,
                                                   PeltoController& controller) {
    transaction.run(controller);
}

__attribute__((noinline)) void measuredTransactionFloor(const Transaction& transaction) {
    transaction.runFloor();
}

int usage() {
    fprintf(stderr,
            "usage: pelto_bench --callgrind=<operation> [--calls=N] [--scene=REGISTERED,VISIBLE]\n"
            "operations: compositeList compositeListFloor compositeApi compositeApiFloor "
            "transaction transactionFloor\n");
    return 2;
}

} // namespace

int runCallgrindDriver(int argc, char** argv) {
    std::string operation;
    int calls = kDefaultCalls;
    size_t registered = kDefaultRegistered;
    size_t visible = kDefaultVisible;
    for (int i = 1; i < argc; ++i) {
        if (strncmp(argv[i], "--callgrind=", 12) == 0) {
            operation = argv[i] + 12;
        } else if (strncmp(argv[i], "--calls=", 8) == 0) {
            calls = atoi(argv[i] + 8);
        } else if (strncmp(argv[i], "--scene=", 8) == 0 &&
                   sscanf(argv[i] + 8, "%zu,%zu", &registered, &visible) == 2 && visible >= 8 &&
                   registered >= visible) {
            continue;
        } else {
            return usage();
        }
    }

    if (operation == "compositeList" || operation == "compositeListFloor" ||
        operation == "transaction" || operation == "transactionFloor") {
        ListModeRig rig(registered, visible);
        const Transaction transaction(rig, 1, TargetAt::First);
        const auto traverse = rig.host.traverseVisibleBufferLayers();
        // Fills the pacing ring, so that the counted calls are steady ones.
        for (int i = 0; i < 64; ++i) {
            transaction.run(*rig.controller);
        }
        for (int i = 0; i < calls; ++i) {
            if (operation == "compositeList") {
                measuredCompositeList(rig);
            } else if (operation == "compositeListFloor") {
                measuredCompositeListFloor(traverse);
            } else if (operation == "transaction") {
                measuredTransaction(transaction, *rig.controller);
            } else {
                measuredTransactionFloor(transaction);
            }
        }
    } else if (operation == "compositeApi" || operation == "compositeApiFloor") {
        ApiModeRig rig(kApiVisible);
        const auto traverse = rig.host.traverseVisibleLayers();
        for (int i = 0; i < calls; ++i) {
            if (operation == "compositeApi") {
                measuredCompositeApi(rig);
            } else {
                measuredCompositeApiFloor(traverse);
            }
        }
    } else {
        return usage();
    }
    printf("%s: %d calls\n", operation.c_str(), calls);
    return 0;
}

} // namespace android::bench
