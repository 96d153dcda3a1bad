// Throughput of the log client: text records with a prefix, from 1, 2 and 4 threads, with a
// short and a 400-byte message. The callers wait only when the queue is full, so a long run
// measures what the writer thread gets to the file; the file is removed after each run.
#include "Peltrix.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace {

std::string g_folder;
CPeltrix* g_client = nullptr;

void OpenClient(const benchmark::State&) {
    g_client = new CPeltrix(true, 384, 64);
    if (g_client->Open("PeltrixBench", "Throughput") == 0) std::abort();
}

void CloseClient(const benchmark::State&) {
    g_client->Close();
    delete g_client;
    g_client = nullptr;
    std::error_code ignored;
    std::filesystem::remove(g_folder + "/PeltrixBench_Throughput.log", ignored);
}

void BM_LogTextRecord(benchmark::State& state) {
    std::string message = "order 4711 accepted";
    message.resize(size_t(state.range(0)), 'm');
    for (auto _ : state) g_client->Log("[Bench]", message.c_str());
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * int64_t(message.size()));
}
BENCHMARK(BM_LogTextRecord)
    ->ArgName("msg")
    ->Arg(19)
    ->Arg(400)
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->Setup(OpenClient)
    ->Teardown(CloseClient)
    ->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    // The records go to $PELTRIX_LOG_FOLDER if it is set, else to a folder of our own.
    bool ownFolder = false;
    const char* env = std::getenv("PELTRIX_LOG_FOLDER");
    if (env != nullptr && *env != '\0') {
        g_folder = env;
    } else {
        g_folder = (std::filesystem::temp_directory_path() /
                    ("peltrix-bench-" + std::to_string(GetCurrentProcessId())))
                       .string();
        std::filesystem::create_directories(g_folder);
        setenv("PELTRIX_LOG_FOLDER", g_folder.c_str(), 1);
        ownFolder = true;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (ownFolder) {
        std::error_code ignored;
        std::filesystem::remove_all(g_folder, ignored);
    }
    return 0;
}
