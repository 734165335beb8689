// Composite latency while other host threads reload the rules or register and
// destroy layers in bursts. A compositor thread composites every 0.5 ms on a
// (64 registered, 16 visible) scene; each row of the table is one load running
// beside it, and the last column compares its p99.9 with the quiet row's.
// Before each reload row, a "parse only" row reads, parses and dumps the same
// file beside composition without touching the controller, and before the
// bursts row the same bursts go into another controller: what the machine
// itself adds when a second thread works, against which the next row shows
// the controller's own part.
// The last two rows composite a (2000 registered, 16 visible) scene: quiet,
// then while another thread dumps the controller every 5 ms; the dumps row is
// compared with that quiet row, not the first one.
//
//   pelto_reload_latency [--seconds=S] [--rounds=N] [--only=TEXT]
//     S: seconds per row and round, default 5; N: rounds, default 3;
//     TEXT: run only the rows whose name contains it, after the first quiet
//     row and the quiet row of their own scene.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>
#include <log/log.h>

#include "bench/BenchHost.h"

namespace android::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kRegistered = 64;
constexpr size_t kVisible = 16;
constexpr auto kCompositeInterval = std::chrono::microseconds(500);
constexpr auto kReloadInterval = std::chrono::milliseconds(5);
constexpr int kBurstRegistrations = 1000;
constexpr auto kBurstInterval = std::chrono::milliseconds(50);
constexpr size_t kLargeRegistered = 2000;
constexpr auto kDumpInterval = std::chrono::milliseconds(5);

// The scene's rules with padding targets appended until the text has at least
// `bytes` bytes; the scene's own targets keep their ids, so it stays On.
std::string paddedRules(const std::string& sceneRules, size_t bytes) {
    Json::Value root;
    std::string errors;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    reader->parse(sceneRules.data(), sceneRules.data() + sceneRules.size(), &root, &errors);
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    std::string text = Json::writeString(writer, root);
    for (int i = 0; text.size() < bytes;) {
        // A batch at a time: writing the whole text again per target is quadratic.
        for (int n = 0; n < 256; ++n, ++i) {
            Json::Value target;
            target["name"] = "padding.app/Activity" + std::to_string(i);
            target["ignore_names"].append("padding.app/Popup" + std::to_string(i));
            root["target_layers"].append(target);
        }
        text = Json::writeString(writer, root);
    }
    return text;
}

struct Row {
    std::string name;
    std::vector<double> latenciesUs;
    int loadOps = 0;
};

double percentile(std::vector<double>& sorted, double p) {
    const size_t index = std::min(sorted.size() - 1, static_cast<size_t>(p * sorted.size()));
    return sorted[index];
}

// Composites on this thread every kCompositeInterval for `seconds` while `load`
// runs on another until told to stop; returns each composite's duration.
double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

Row measure(ListModeRig& rig, const std::string& name, double seconds,
            const std::function<int(const std::atomic<bool>&)>& load) {
    Row row{name, {}, 0};
    std::atomic<bool> stop{false};
    std::thread loader;
    if (load) {
        loader = std::thread([&] { row.loadOps = load(stop); });
    }
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    row.latenciesUs.reserve(static_cast<size_t>(seconds / 0.0005) + 16);
    for (auto next = Clock::now(); next < end; next += kCompositeInterval) {
        std::this_thread::sleep_until(next);
        const auto start = Clock::now();
        rig.composite();
        const auto took = Clock::now() - start;
        row.latenciesUs.push_back(std::chrono::duration<double, std::micro>(took).count());
    }
    stop = true;
    if (loader.joinable()) {
        loader.join();
    }
    LOG_ALWAYS_FATAL_IF(!rig.controller->isOn(), "the scene left On during %s", name.c_str());
    return row;
}

int reloadLoop(PeltoController& controller, const std::atomic<bool>& stop) {
    int reloads = 0;
    while (!stop) {
        std::string out;
        controller.reloadConfigThenDump(out);
        ++reloads;
        std::this_thread::sleep_for(kReloadInterval);
    }
    return reloads;
}

// The reload's work outside the controller: the same file read, parsed and
// dumped into a configuration nobody uses.
int parseLoop(const std::string& path, const std::atomic<bool>& stop) {
    int parses = 0;
    const PeltoConfig defaults(path);
    while (!stop) {
        const std::unique_ptr<PeltoConfig> config = PeltoConfig::makeReloadOf(defaults);
        config->loadConfig(true);
        std::string text;
        config->dump(text);
        ++parses;
        std::this_thread::sleep_for(kReloadInterval);
    }
    return parses;
}

int dumpLoop(PeltoController& controller, const std::atomic<bool>& stop) {
    int dumps = 0;
    while (!stop) {
        std::string out;
        controller.dump(out);
        ++dumps;
        std::this_thread::sleep_for(kDumpInterval);
    }
    return dumps;
}

int burstLoop(PeltoController& controller, const std::atomic<bool>& stop) {
    std::vector<char> layers(kBurstRegistrations);
    int bursts = 0;
    while (!stop) {
        for (int i = 0; i < kBurstRegistrations; ++i) {
            controller.registerLayer(&layers[i], "com.example.app/Popup#" + std::to_string(i));
        }
        for (int i = 0; i < kBurstRegistrations; ++i) {
            controller.destroyLayer(&layers[i]);
        }
        ++bursts;
        std::this_thread::sleep_for(kBurstInterval);
    }
    return bursts;
}

struct Options {
    double seconds = 5.0;
    int roundCount = 3;
    std::string only;
};

bool parseOptions(int argc, char** argv, Options* options) {
    for (int i = 1; i < argc; ++i) {
        if (strncmp(argv[i], "--seconds=", 10) == 0) {
            options->seconds = atof(argv[i] + 10);
        } else if (strncmp(argv[i], "--rounds=", 9) == 0 && atoi(argv[i] + 9) > 0) {
            options->roundCount = atoi(argv[i] + 9);
        } else if (strncmp(argv[i], "--only=", 7) == 0) {
            options->only = argv[i] + 7;
        } else {
            fprintf(stderr, "usage: %s [--seconds=S] [--rounds=N] [--only=TEXT]\n", argv[0]);
            return false;
        }
    }
    return true;
}

using LoadLoop = std::function<int(const std::atomic<bool>&)>;

struct Load {
    std::string name;
    size_t ruleBytes; // 0: the rule file is not rewritten
    LoadLoop loop;    // null: a quiet row
    ListModeRig* rig; // the scene composited
};

// The scenes a row composites, and what runs beside it.
struct Rigs {
    ListModeRig rig{kRegistered, kVisible};
    // The bursts' control: the same registrations into a controller of their
    // own, which shares nothing with the composited one but the machine.
    ListModeRig bystander{kRegistered, kVisible};
    // The dumps' scene: the same visible layers among many more registered ones.
    ListModeRig large{kLargeRegistered, kVisible};
};

std::vector<Load> allLoads(Rigs& rigs) {
    PeltoController& controller = *rigs.rig.controller;
    const std::string path = rigs.rig.rules.path();
    const LoadLoop reloads = [&controller](const std::atomic<bool>& stop) {
        return reloadLoop(controller, stop);
    };
    const LoadLoop parses = [path](const std::atomic<bool>& stop) { return parseLoop(path, stop); };
    const LoadLoop bursts = [&controller](const std::atomic<bool>& stop) {
        return burstLoop(controller, stop);
    };
    PeltoController& bystander = *rigs.bystander.controller;
    const LoadLoop bystanderBursts = [&bystander](const std::atomic<bool>& stop) {
        return burstLoop(bystander, stop);
    };
    PeltoController& large = *rigs.large.controller;
    const LoadLoop dumps = [&large](const std::atomic<bool>& stop) {
        return dumpLoop(large, stop);
    };
    std::vector<Load> loads = {{"no load", 0, nullptr, &rigs.rig}};
    for (const auto& [size, bytes] :
         {std::pair{"1 KB", size_t{1} << 10}, std::pair{"100 KB", size_t{100} << 10},
          std::pair{"1 MB", size_t{1} << 20}}) {
        loads.push_back({std::string("parse only ") + size + " rules", bytes, parses, &rigs.rig});
        loads.push_back({std::string("reload ") + size + " rules", bytes, reloads, &rigs.rig});
    }
    loads.push_back(
            {"1,000-registration bursts into another controller", 0, bystanderBursts, &rigs.rig});
    loads.push_back({"1,000-registration bursts", 0, bursts, &rigs.rig});
    const std::string largeScene =
            "(" + std::to_string(kLargeRegistered) + ", " + std::to_string(kVisible) + ") scene";
    loads.push_back({"no load, " + largeScene, 0, nullptr, &rigs.large});
    loads.push_back({"dumps every " + std::to_string(kDumpInterval.count()) + " ms, " + largeScene,
                     0, dumps, &rigs.large});
    return loads;
}

// A loaded row is compared with the quiet row of its scene, which comes
// before it. The first quiet row always stays; another stays when a row of
// its scene is chosen.
std::vector<Load> chosenLoads(const std::vector<Load>& loads, const std::string& only) {
    const auto chosen = [&only](const Load& load) {
        return load.name.find(only) != std::string::npos;
    };
    std::vector<Load> kept;
    for (size_t i = 0; i < loads.size(); ++i) {
        const Load& load = loads[i];
        const bool quietOfChosen =
                !load.loop && std::any_of(loads.begin(), loads.end(), [&](const Load& other) {
                    return other.rig == load.rig && chosen(other);
                });
        if (i == 0 || chosen(load) || quietOfChosen) kept.push_back(load);
    }
    return kept;
}

// Rounds run every row in turn, so a burst of noise from the machine
// lands in one round of a row, and the median round discards it.
std::vector<std::vector<Row>> runRounds(const std::vector<Load>& loads, const Options& options,
                                        const std::function<void(size_t)>& writeRules) {
    std::vector<std::vector<Row>> rounds(loads.size());
    for (int round = 0; round < options.roundCount; ++round) {
        for (size_t i = 0; i < loads.size(); ++i) {
            if (loads[i].ruleBytes != 0) writeRules(loads[i].ruleBytes);
            rounds[i].push_back(
                    measure(*loads[i].rig, loads[i].name, options.seconds, loads[i].loop));
        }
    }
    return rounds;
}

void printTable(const std::vector<Load>& loads, std::vector<std::vector<Row>>& rounds,
                const Options& options) {
    printf("composite latency, (%zu, %zu) scene unless the row names another, one composite "
           "every %lld us, %d rounds of %.0f s a row; each percentile is the median of the "
           "rounds', the max the largest; p99.9 / quiet is over the no-load row of the row's "
           "own scene\n",
           kRegistered, kVisible, static_cast<long long>(kCompositeInterval.count()),
           options.roundCount, options.seconds);
    printf("| load | composites | load ops | p50 us | p99 us | p99.9 us | max us | p99.9 / quiet "
           "|\n");
    printf("|---|---|---|---|---|---|---|---|\n");
    std::map<const ListModeRig*, double> quiet; // each scene's quiet p99.9
    for (size_t i = 0; i < loads.size(); ++i) {
        size_t composites = 0;
        int loadOps = 0;
        double max = 0;
        std::vector<double> p50, p99, p999;
        for (Row& row : rounds[i]) {
            std::sort(row.latenciesUs.begin(), row.latenciesUs.end());
            composites += row.latenciesUs.size();
            loadOps += row.loadOps;
            max = std::max(max, row.latenciesUs.back());
            p50.push_back(percentile(row.latenciesUs, 0.5));
            p99.push_back(percentile(row.latenciesUs, 0.99));
            p999.push_back(percentile(row.latenciesUs, 0.999));
        }
        const double rowP999 = median(p999);
        if (!loads[i].loop) quiet[loads[i].rig] = rowP999;
        printf("| %s | %zu | %d | %.1f | %.1f | %.1f | %.1f | %.2f |\n", loads[i].name.c_str(),
               composites, loadOps, median(p50), median(p99), rowP999, max,
               rowP999 / quiet[loads[i].rig]);
    }
}

} // namespace
} // namespace android::bench

int main(int argc, char** argv) {
    using namespace android::bench;
    Options options;
    if (!parseOptions(argc, argv, &options)) return 2;
    // The loader logs a line per target; those are counted and dropped.
    installCountingLogger();

    Rigs rigs;
    // The composited controller's own rule file, which its reloads read.
    const std::string& path = rigs.rig.rules.path();
    const auto writeRules = [&](size_t bytes) {
        std::ofstream(path, std::ios::trunc) << paddedRules(rigs.rig.scene.ruleFile, bytes);
    };
    const std::vector<Load> loads = chosenLoads(allLoads(rigs), options.only);
    std::vector<std::vector<Row>> rounds = runRounds(loads, options, writeRules);
    printTable(loads, rounds, options);
    return 0;
}
