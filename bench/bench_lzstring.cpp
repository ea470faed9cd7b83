// Decodes each input file (UTF-16LE lz-string text) with our decoder.
// Usage: bench_lzstring FILE... [Google Benchmark flags]
#include "LZString/LZString.h"

#include <benchmark/benchmark.h>

#include <QFile>
#include <QFileInfo>

#include <cstring>
#include <vector>

namespace {

QString ReadUtf16(const char* path)
{
    QFile file(QString::fromLocal8Bit(path));
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    const QByteArray bytes = file.readAll();
    return QString(reinterpret_cast<const QChar*>(bytes.constData()), bytes.size() / 2);
}

void Decode(benchmark::State& state, QString input)
{
    qint64 outputBytes = 0;
    for (auto _ : state) {
        const QString text = LZString::decompressFromUTF16(input);
        benchmark::DoNotOptimize(text.constData());
        outputBytes = text.size() * 2;
    }
    state.SetBytesProcessed(outputBytes * state.iterations());
    state.counters["output_bytes"] = static_cast<double>(outputBytes);
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<char*> flags{argv[0]};
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--", 2) == 0) {
            flags.push_back(argv[i]);
            continue;
        }
        const QString input = ReadUtf16(argv[i]);
        const std::string name = QFileInfo(QString::fromLocal8Bit(argv[i])).completeBaseName().toStdString();
        benchmark::RegisterBenchmark(name.c_str(), &Decode, input)->Unit(benchmark::kMicrosecond);
    }
    int count = static_cast<int>(flags.size());
    benchmark::Initialize(&count, flags.data());
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
