// Building the environment of one launch from every settings layer, and a
// whole launch up to the started process against a bare process start.
//
// The site has eight layers (site, base, three plugins, the common
// department, the department, the application) of N variables each, a
// quarter of them extending PATH or referring to a variable of an earlier
// layer, over a process environment of N * 2.5 variables; N is 40 (a
// realistic site) or 400. Windows launch conventions throughout.
#include "kym/BaseSettings.h"
#include "kym/ConfigApplication.h"
#include "kym/Configuration.h"
#include "kym/Launcher.h"
#include "kym/PluginsManager.h"
#include "kym/SiteSettings.h"
#include "kym/SystemInfo.h"
#include "kym/WorkDirectory.h"

#include "base/Archiver.h"
#include "base/Platform.h"
#include "base/Task.h"

#include <benchmark/benchmark.h>

#include <boost/algorithm/string/replace.hpp>
#include <boost/filesystem.hpp>
#include <boost/regex.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using Kym::EnvironmentVariable;
using Variables = std::vector<EnvironmentVariable>;

constexpr int PluginCount = 3;

// Started programs are orphans; this process adopts them so each can be reaped.
const bool adoptsOrphans = ::prctl(PR_SET_CHILD_SUBREAPER, 1) == 0;

void reapOneChild() {
    int status = 0;
    while (::waitpid(-1, &status, 0) < 0 && errno == EINTR) {
    }
}

// The variables of layer `layer`: plain values, replacements of a name every
// layer sets, PATH extensions and references to the layer before.
Variables layerVariables(int layer, int count) {
    Variables variables;
    for (int k = 0; k < count; ++k) {
        const std::string index = std::to_string(k);
        if (k % 8 == 0)
            variables.emplace_back("PATH", "$PATH;C:\\Layer" + std::to_string(layer) + "\\bin" + index);
        else if (k % 8 == 4)
            variables.emplace_back("L" + std::to_string(layer) + "_REF" + index,
                                   "${L" + std::to_string(layer - 1) + "_V" + std::to_string(k + 2) + "}\\sub");
        else if (k % 4 == 1)
            variables.emplace_back("SHARED_V" + index, "C:/Layer" + std::to_string(layer) + "/shared" + index);
        else
            variables.emplace_back("L" + std::to_string(layer) + "_V" + index,
                                   "C:\\Program Files\\Layer" + std::to_string(layer) + "\\value" + index);
    }
    return variables;
}

void fill(Kym::EnvVariableListSource* list, const Variables& variables) {
    std::vector<int> rows(static_cast<std::size_t>(list->numberOfRowsInList()));
    for (std::size_t i = 0; i < rows.size(); ++i) rows[i] = static_cast<int>(i);
    list->deleteRows(rows);
    for (const EnvironmentVariable& variable : variables) {
        list->insertRow(-1);
        const int row = list->numberOfRowsInList() - 1;
        list->setValueForListColumnRow("Name", row, variable.name);
        list->setValueForListColumnRow("Value", row, variable.value);
    }
}

// A site on disk whose stores are filled in memory; the stores live for the
// whole process, so every benchmark refills them for its size.
class BenchSite {
public:
    BenchSite() : mRoot(fs::temp_directory_path() / fs::unique_path("kymbench-%%%%-%%%%")) {
        fs::create_directories(mRoot / "kym" / "config");
        fs::create_directories(mRoot / "ugsite" / "Design");
        fs::create_directories(mRoot / "ugsite" / "Shared");
        fs::create_directories(mRoot / "temp");
        for (int plugin = 0; plugin < PluginCount; ++plugin)
            fs::create_directories(mRoot / "kym" / "plugins" / ("plugin" + std::to_string(plugin)));
        Base::Archiver systemInfo(mRoot / "kym" / "config" / "sysinfo.dat");
        systemInfo.encode("CadVersionDirectory", std::string("nx4"));
        systemInfo.finishEncoding();
        Base::Platform::setCurrent(Base::Platform::Windows);
    }
    ~BenchSite() {
        boost::system::error_code ignored;
        fs::remove_all(mRoot, ignored);
    }

    const fs::path& root() const { return mRoot; }

    // N variables per layer and N * 2.5 process variables.
    void populate(int count) {
        ::clearenv();
        ::setenv("KYM_BASE_DIR", (mRoot / "kym").c_str(), 1);
        ::setenv("TEMP", (mRoot / "temp").c_str(), 1);
        ::setenv("PATH", "C:\\Windows\\system32;C:\\Windows", 1);
        for (int k = 0; k < count * 5 / 2 - 3; ++k)
            ::setenv(("PROCESS_V" + std::to_string(k)).c_str(), ("C:\\Process\\value" + std::to_string(k)).c_str(), 1);

        fill(Kym::SiteInformation().commonVariables(), layerVariables(1, count));
        fill(Kym::BaseInformation().commonVariables(), layerVariables(2, count));
        Kym::PluginsManager& plugins = Kym::PluginsManagement();
        for (int plugin = 0; plugin < PluginCount; ++plugin)
            fill(plugins.plugin(plugin, false)->commonVariables(), layerVariables(3 + plugin, count));
        common = std::make_unique<Kym::Configuration>(mRoot / "ugsite" / "Shared", false);
        fill(common->settings()->commonVariables(), layerVariables(3 + PluginCount, count));
        department = std::make_unique<Kym::Configuration>(mRoot / "ugsite" / "Design", false);
        department->commonDepartment = "Shared";
        department->doFileCleanup = true;
        fill(department->settings()->commonVariables(), layerVariables(4 + PluginCount, count));
        application = Kym::ConfigApplication();
        application.program = "/bin/true";
        application.arguments = "-dept=$KYM_DEPT_DIR -site=${UGII_SITE_DIR}";
        application.addUGLibsToPath = true;
        fill(application.commonVariables(), layerVariables(5 + PluginCount, count));
        workDirectory.name = "Run";
        workDirectory.path = (mRoot / "temp").string();
    }

    // Every layer's user variables, in merge order.
    std::vector<const Kym::SettingsProtocol*> layers() const {
        std::vector<const Kym::SettingsProtocol*> all{&Kym::SiteInformation(), &Kym::BaseInformation()};
        for (int plugin = 0; plugin < PluginCount; ++plugin) all.push_back(Kym::PluginsManagement().plugin(plugin, false));
        all.push_back(common->settings());
        all.push_back(department->settings());
        all.push_back(&application);
        return all;
    }

    std::unique_ptr<Kym::Configuration> common;
    std::unique_ptr<Kym::Configuration> department;
    Kym::ConfigApplication application;
    Kym::WorkDirectory workDirectory;

private:
    fs::path mRoot;
};

BenchSite& site() {
    static BenchSite* instance = new BenchSite;
    return *instance;
}

Variables processVariables() {
    Variables variables;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        variables.emplace_back(text.substr(0, equals), text.substr(equals + 1));
    }
    return variables;
}

// The merge rule as written: a linear search and a compiled pattern per variable.
void plainMerge(const EnvironmentVariable& variable, Variables& list) {
    auto existing = std::find_if(list.begin(), list.end(), [&](const EnvironmentVariable& v) { return v.name == variable.name; });
    const std::string current =
        existing == list.end() ? std::string() : boost::algorithm::replace_all_copy(existing->value, "\\", "\\\\");
    const boost::regex pattern("\\$" + variable.name + "|\\$\\{" + variable.name + "\\}", boost::regex::perl);
    std::string value = boost::regex_replace(variable.value, pattern, current);
    if (existing == list.end())
        list.emplace_back(variable.name, value);
    else
        existing->value = std::move(value);
}

void plainMergeLayers(const std::vector<const Kym::SettingsProtocol*>& layers, Variables& list) {
    for (const Kym::SettingsProtocol* layer : layers) {
        for (const EnvironmentVariable& variable : layer->commonVariableList()) plainMerge(variable, list);
        for (const EnvironmentVariable& variable : layer->winVariableList()) plainMerge(variable, list);
    }
}

bool sameVariables(const Variables& left, const Variables& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](const EnvironmentVariable& a, const EnvironmentVariable& b) {
                          return a.name == b.name && a.value == b.value;
                      });
}

struct NoticeEveryLayer : Kym::Launcher::LayerObserver {
    int layers = 0;
    void layerMerged(const std::string&, const Variables&) override { ++layers; }
};

void BM_MergeLayerVariables(benchmark::State& state) {
    BenchSite& bench = site();
    bench.populate(static_cast<int>(state.range(0)));
    const auto layers = bench.layers();
    const Variables process = processVariables();
    Variables plain = process, merged = process;
    plainMergeLayers(layers, plain);
    for (const Kym::SettingsProtocol* layer : layers) layer->mergeUserEnvVariables(merged);
    if (!sameVariables(plain, merged)) state.SkipWithError("the merge differs from the plain merge");
    for (auto _ : state) {
        Variables list = process;
        for (const Kym::SettingsProtocol* layer : layers) layer->mergeUserEnvVariables(list);
        benchmark::DoNotOptimize(list.data());
    }
}

void BM_MergeLayerVariablesPlainRule(benchmark::State& state) {
    BenchSite& bench = site();
    bench.populate(static_cast<int>(state.range(0)));
    const auto layers = bench.layers();
    const Variables process = processVariables();
    for (auto _ : state) {
        Variables list = process;
        plainMergeLayers(layers, list);
        benchmark::DoNotOptimize(list.data());
    }
}

void buildEnvironment(benchmark::State& state, bool observed) {
    BenchSite& bench = site();
    bench.populate(static_cast<int>(state.range(0)));
    const Kym::Launcher launcher;
    Kym::Launcher::EnvironmentMap reference, withObserver;
    launcher.buildEnvVarMap(*bench.department, bench.common.get(), bench.application, reference);
    NoticeEveryLayer observer;
    launcher.buildEnvVarMap(*bench.department, bench.common.get(), bench.application, withObserver, &observer);
    if (reference != withObserver) state.SkipWithError("the observed build differs");
    for (auto _ : state) {
        Kym::Launcher::EnvironmentMap env;
        launcher.buildEnvVarMap(*bench.department, bench.common.get(), bench.application, env,
                                observed ? &observer : nullptr);
        benchmark::DoNotOptimize(env.size());
    }
    state.counters["variables"] = static_cast<double>(reference.size());
}

void BM_BuildEnvVarMap(benchmark::State& state) {
    buildEnvironment(state, false);
}

void BM_BuildEnvVarMapObserved(benchmark::State& state) {
    buildEnvironment(state, true);
}

void BM_LaunchApplication(benchmark::State& state) {
    BenchSite& bench = site();
    bench.populate(static_cast<int>(state.range(0)));
    if (!adoptsOrphans) state.SkipWithError("cannot adopt the started programs");
    const Kym::Launcher launcher;
    for (auto _ : state) {
        launcher.launchApplication(*bench.department, bench.common.get(), bench.application, &bench.workDirectory);
        state.PauseTiming();
        reapOneChild();
        state.ResumeTiming();
    }
}

void BM_BareTaskLaunch(benchmark::State& state) {
    BenchSite& bench = site();
    bench.populate(static_cast<int>(state.range(0)));
    if (!adoptsOrphans) state.SkipWithError("cannot adopt the started programs");
    Kym::Launcher::EnvironmentMap env;
    Kym::Launcher().buildEnvVarMap(*bench.department, bench.common.get(), bench.application, env);
    for (auto _ : state) {
        Base::Task task;
        task.setArguments({"-dept=" + env["KYM_DEPT_DIR"], "-site=" + env["UGII_SITE_DIR"]});
        task.setLaunchPath("/bin/true");
        task.setCurrentDirectoryPath(bench.workDirectory.path);
        task.setEnvironment(env);
        task.launch();
        state.PauseTiming();
        reapOneChild();
        state.ResumeTiming();
    }
}

} // namespace

BENCHMARK(BM_MergeLayerVariables)->Arg(40)->Arg(400)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MergeLayerVariablesPlainRule)->Arg(40)->Arg(400)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BuildEnvVarMap)->Arg(40)->Arg(400)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BuildEnvVarMapObserved)->Arg(40)->Arg(400)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LaunchApplication)->Arg(40)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BareTaskLaunch)->Arg(40)->Unit(benchmark::kMicrosecond);
