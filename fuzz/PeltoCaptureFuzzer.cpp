// The input is a device capture for pelto-sim --capture: ftrace text in any
// layout, a systrace HTML report, a Perfetto trace, gzip of them, or anything
// else. It goes through the whole reader from a file (a memfd), as the
// program reads it, then becomes a scenario. Either step may refuse it with
// a message that names the file; what it accepts must be playable: a panel
// rate, layers with buffers in time order inside the capture.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "tools/sim/CaptureReader.h"
#include "tools/sim/CaptureScenario.h"
#include "tools/sim/ScenarioReader.h"

namespace {

// One memfd for the process, rewritten for each input.
int captureFile() {
    static const int fd = memfd_create("pelto_capture_fuzz", 0);
    return fd;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace android::tools::sim;
    using android::fuzz::check;
    const int fd = captureFile();
    check(fd >= 0, "a memfd");
    check(ftruncate(fd, 0) == 0 && pwrite(fd, data, size, 0) == static_cast<ssize_t>(size),
          "the input written");
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    Capture capture;
    std::string error;
    // A small limit on what is kept, so that inputs reach it.
    if (!readCapture(path, &capture, &error, int64_t{1} << 20)) {
        check(error.find(path) != std::string::npos, "the error names the file");
        return 0;
    }
    check(!capture.refresh.empty() && capture.refresh.front().at == 0, "a rate from the start");
    check(!capture.layers.empty(), "a layer to play");
    for (const Capture::Layer& layer : capture.layers) {
        check(!layer.buffers.empty(), "every layer has buffers");
        for (size_t i = 0; i < layer.buffers.size(); ++i) {
            check(layer.buffers[i] >= 0 && layer.buffers[i] < capture.duration,
                  "buffers inside the capture");
            check(i == 0 || layer.buffers[i - 1] <= layer.buffers[i], "buffers in time order");
        }
    }
    Scenario scenario;
    if (!captureScenario(capture, CapturePlay{}, &scenario, &error)) {
        check(error.find(path) != std::string::npos, "the error names the file");
        return 0;
    }
    check(scenario.display.refreshHz >= kMinRefreshHz &&
                  scenario.display.refreshHz <= kMaxRefreshHz,
          "a panel's rate");
    for (const RefreshChange& change : scenario.display.refreshChanges) {
        check(change.refreshHz >= kMinRefreshHz && change.refreshHz <= kMaxRefreshHz,
              "a panel's rate at every change");
    }
    check(runSteps(scenario) <= kMaxRunSteps, "a run of bounded length");
    check(!scenario.listMode && scenario.events.size() == 2, "API mode with a target");
    return 0;
}
