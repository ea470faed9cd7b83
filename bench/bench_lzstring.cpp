// Our decoder, driven by lzstring-node.js so that ours and node's runs interleave.
// Commands on stdin, one a line, each answered with one line:
//   load FILE      -> "ok CHARS"            (UTF-16LE lz-string text)
//   hash I         -> "SHA256 CHARS"        (of input I's decoded text as UTF-16LE)
//   run I N        -> N decode times in ns, "| FAULTS" (minor page faults a decode), then
//                     "| " and N thread CPU times in ns (what a busy machine's preemption leaves out)
// bench_lzstring --peak FILE -> "PEAK_BYTES OUTPUT_BYTES": resident memory one decode adds at most.
#include "LZString/LZString.h"

#include <QCryptographicHash>
#include <QFile>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

QString ReadUtf16(const std::string& path)
{
    QFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    const QByteArray bytes = file.readAll();
    return QString(reinterpret_cast<const QChar*>(bytes.constData()), bytes.size() / 2);
}

// Read without touching the heap, so that measuring does not move where the next decode's text goes.
long StatusKiB(const char* field)
{
    char buffer[4096];
    const int fd = open("/proc/self/status", O_RDONLY);
    if (fd < 0)
        return -1;
    const ssize_t size = read(fd, buffer, sizeof buffer - 1);
    close(fd);
    if (size <= 0)
        return -1;
    buffer[size] = 0;
    const char* at = std::strstr(buffer, field);
    return at ? std::strtol(at + std::strlen(field), nullptr, 10) : -1;
}

long long ThreadCpuNs()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

long MinorFaults()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

int Peak(const std::string& path)
{
    const QString input = ReadUtf16(path);
    // A first decode in the same process: what stays (buffers kept for the next call) is not the peak of a call.
    qint64 outputBytes = LZString::decompressFromUTF16(input).size() * 2;
    const int clear = open("/proc/self/clear_refs", O_WRONLY);
    if (clear >= 0) {
        if (write(clear, "5", 1) != 1) // resets the peak resident size
            std::perror("clear_refs");
        close(clear);
    }
    const long before = StatusKiB("VmRSS:");
    const QString text = LZString::decompressFromUTF16(input);
    const long peak = StatusKiB("VmHWM:");
    outputBytes = text.size() * 2;
    std::printf("%ld %lld\n", (peak - before) * 1024, static_cast<long long>(outputBytes));
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--peak") == 0)
        return Peak(argv[2]);
    std::vector<QString> inputs;
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream in(line);
        std::string command;
        in >> command;
        if (command == "load") {
            std::string path;
            in >> path;
            inputs.push_back(ReadUtf16(path));
            std::printf("ok %d\n", inputs.back().size());
        } else if (command == "hash") {
            size_t index = 0;
            in >> index;
            const QString text = LZString::decompressFromUTF16(inputs.at(index));
            const QByteArray bytes(reinterpret_cast<const char*>(text.utf16()), text.size() * 2);
            std::printf("%s %d\n", QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex().constData(),
                        text.size());
        } else if (command == "run") {
            size_t index = 0;
            int count = 0;
            in >> index >> count;
            const QString& input = inputs.at(index);
            const long faults = MinorFaults();
            std::string out;
            std::string cpu;
            for (int i = 0; i < count; ++i) {
                const long long cpuStart = ThreadCpuNs();
                const auto start = std::chrono::steady_clock::now();
                const QString text = LZString::decompressFromUTF16(input);
                const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                    std::chrono::steady_clock::now() - start)
                                    .count();
                const long long cpuNs = ThreadCpuNs() - cpuStart;
                if (text.isEmpty())
                    return 1;
                out += std::to_string(ns) + " ";
                cpu += std::to_string(cpuNs) + " ";
            }
            std::printf("%s| %.1f | %s\n", out.c_str(), double(MinorFaults() - faults) / count, cpu.c_str());
        } else {
            std::printf("unknown command\n");
        }
        std::fflush(stdout);
    }
    return 0;
}
