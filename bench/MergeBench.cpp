// Merging a site-sized layer of variables into the list the launcher assembles.
#include "kym/SettingsProtocol.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

using Variables = std::vector<Kym::EnvironmentVariable>;

std::string variableName(int index) {
    char name[32];
    std::snprintf(name, sizeof name, "UGII_VARIABLE_%04d", index);
    return name;
}

class Layer : public Kym::SettingsProtocol {
public:
    explicit Layer(const Variables& variables) { mCommonVariables = variables; }
};

// Half of the layer's names replace entries of the target, half are new.
Layer makeLayer(int count, bool selfReference) {
    Variables variables;
    for (int i = count / 2; i < count / 2 + count; ++i) {
        const std::string name = variableName(i);
        variables.emplace_back(name, selfReference ? "${" + name + "};C:\\tools\\bin" : "C:\\tools\\bin");
    }
    return Layer(variables);
}

Variables makeTarget(int count) {
    Variables variables;
    for (int i = 0; i < count; ++i) variables.emplace_back(variableName(i), "C:\\Program Files\\value" + std::to_string(i));
    return variables;
}

void mergeLayer(benchmark::State& state, bool selfReference) {
    const int count = static_cast<int>(state.range(0));
    const Layer layer = makeLayer(count, selfReference);
    const Variables target = makeTarget(count);
    Variables list;
    for (auto _ : state) {
        // Refilled in place: growing a fresh list each time measures the allocator more than the merge.
        list.assign(target.begin(), target.end());
        layer.mergeUserEnvVariables(list);
        benchmark::DoNotOptimize(list.data());
    }
    state.SetItemsProcessed(state.iterations() * count);
}

void BM_MergePlainValues(benchmark::State& state) {
    mergeLayer(state, false);
}

void BM_MergeSelfReferences(benchmark::State& state) {
    mergeLayer(state, true);
}

} // namespace

BENCHMARK(BM_MergePlainValues)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MergeSelfReferences)->Arg(1000)->Unit(benchmark::kMillisecond);
