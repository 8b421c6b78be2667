// Reading a settings file of a site-sized layer: the records straight from the
// checked document, against converting the whole document into a value tree.
#include "kym/EnvironmentVariable.h"

#include "base/Archiver.h"
#include "base/FileManager.h"
#include "base/PropertyList.h"
#include "base/Unarchiver.h"

#include <benchmark/benchmark.h>
#include <boost/filesystem/operations.hpp>

#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using Variables = std::vector<Kym::EnvironmentVariable>;

// A settings file with one list of count variables, written by the archiver.
fs::path writeSettings(int count) {
    const fs::path file = fs::temp_directory_path() / fs::unique_path("kym-read-bench-%%%%%%%%.dat");
    Variables variables;
    for (int i = 0; i < count; ++i)
        variables.emplace_back("BENCH_VARIABLE_" + std::to_string(i), "/opt/bench/layer/value" + std::to_string(i));
    Base::Archiver archiver(file);
    archiver.encodeObject("Common Variables", variables);
    archiver.finishEncoding();
    return file;
}

void BM_DecodeVariableList(benchmark::State& state) {
    const fs::path file = writeSettings(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        Base::Unarchiver archive(file);
        benchmark::DoNotOptimize(archive.decodeValue<Variables>("Common Variables"));
    }
    fs::remove(file);
}

void BM_ParseIntoValueTree(benchmark::State& state) {
    const fs::path file = writeSettings(static_cast<int>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(Base::PropertyList(file).root());
    fs::remove(file);
}

} // namespace

BENCHMARK(BM_DecodeVariableList)->Arg(40)->Arg(400)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ParseIntoValueTree)->Arg(40)->Arg(400)->Unit(benchmark::kMicrosecond);
