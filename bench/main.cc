// The benchmark of the library, the bare probes and the peers.
//
// Every case is one operation of one contestant at one size. The contestants stand beside each
// other with the same records, and the rounds go through them in turn, so that a change of the
// machine's speed meets them all; what is reported is the median of the rounds. Times of a single
// process are its thread's CPU time; a server's and those of several processes are wall time.
// Every answer's length and first bytes are checked.
#include <benchmark/benchmark.h>
#include <sys/utsname.h>

#include <CLI/CLI.hpp>
#include <fstream>

#include "field.h"

static nlohmann::ordered_json context(int argc, char **argv)
{
    nlohmann::ordered_json out;
    const benchmark::CPUInfo &cpu = benchmark::CPUInfo::Get();
    utsname host;
    uname(&host);
    std::string model, line, command;
    for (std::ifstream info("/proc/cpuinfo"); std::getline(info, line);)
        if (line.rfind("model name", 0) == 0)
            model = line.substr(line.find(':') + 2);
    for (int i = 1; i < argc; i++) {
        if (argv[i] == std::string("--out"))
            i++; // where the results go says nothing of them
        else
            command += " " + std::string(argv[i]);
    }
    char date[64];
    const time_t now = time(nullptr);
    strftime(date, sizeof date, "%Y-%m-%d %H:%M", localtime(&now));
    out = {{"date", date},
           {"command", "./dev bench" + command},
           {"cpu", model},
           {"cpus", cpu.num_cpus},
           {"mhz", cpu.cycles_per_second / 1e6},
           {"kernel", host.release},
           {"compiler", "g++ " __VERSION__},
           {"rounds", opt.rounds},
           {"quick", opt.quick},
           {"huge_pages", opt.huge}};
    for (const auto &cache : cpu.caches)
        out["caches"].push_back("L" + std::to_string(cache.level) + " " + cache.type + " " +
                                std::to_string(cache.size / 1024) + "K");
    return out;
}

int main(int argc, char **argv)
{
    CLI::App app("Measures the library, the bare probes and the peers");
    app.add_flag("--quick", opt.quick, "fewer sizes, rounds and operations");
    app.add_flag("--huge", opt.huge, "huge pages for /dev/shm");
    app.add_option("--rounds", opt.rounds, "rounds over all contestants");
    app.add_option("--sizes", opt.sizes, "numbers of records")->delimiter(',');
    app.add_option("--values", opt.val_sizes, "sizes of vector values, bytes")->delimiter(',');
    app.add_option("--peers", opt.peers, "contestants, a regular expression");
    app.add_option("--out", opt.out, "where the results go, as JSON");
    app.add_option("filter", opt.filter, "cases, a regular expression over operation/size/contestant");
    CLI11_PARSE(app, argc, argv);
    if (opt.rounds == 0)
        opt.rounds = opt.quick ? 3 : 5;
    if (opt.sizes.empty())
        opt.sizes = opt.quick ? std::vector<uint32_t>{1000, 1000000}
                              : std::vector<uint32_t>{1000, 100000, 1000000, 4000000};
    if (opt.val_sizes.empty())
        opt.val_sizes =
            opt.quick ? std::vector<uint32_t>{100, 2000} : std::vector<uint32_t>{100, 500, 1000, 2000};
    use_own_shm(opt.huge);
    int none = 1;
    char *argv0[] = {argv[0], nullptr};
    benchmark::Initialize(&none, argv0);
    ns_per_tick();

    const nlohmann::ordered_json about = context(argc, argv);
    // First what runs in children only: they must come from a process that has used no peer yet.
    for (uint32_t n : opt.sizes)
        if (n <= 1000000)
            procs_group(n);
    for (uint32_t n : opt.sizes)
        attach_group(n);
    for (uint32_t n : opt.sizes)
        if (n >= 100000 && n <= 1000000)
            growth_group(n);
    for (uint32_t val_sz : opt.val_sizes)
        vector_group(val_sz);
    for (uint32_t n : opt.sizes)
        table_group(n);
    const nlohmann::ordered_json results = results_json();
    std::ofstream out(opt.out);
    out << "{\"context\": " << about << ",\n\"benchmarks\": [";
    for (size_t i = 0; i < results.size(); i++) // a line each
        out << (i ? ",\n" : "\n") << results[i];
    out << "]}\n";
    fprintf(stderr, "%zu cases written to %s\n", results.size(), opt.out.c_str());
    return 0;
}
