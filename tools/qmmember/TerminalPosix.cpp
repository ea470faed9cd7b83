#include "Terminal.h"

#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace Terminal {

namespace {
int g_pipe[2] = {-1, -1};

// Only async-signal-safe work here: one byte into the pipe, read by the event loop.
void Signalled(int)
{
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(g_pipe[1], &byte, 1);
}
} // namespace

bool InputIsTerminal()
{
    return ::isatty(STDIN_FILENO);
}

bool ErrorIsTerminal()
{
    return ::isatty(STDERR_FILENO);
}

bool OutputIsTerminal()
{
    return ::isatty(STDOUT_FILENO);
}

QString ReadLine()
{
    std::string line;
    std::getline(std::cin, line);
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return QString::fromStdString(line);
}

QString ReadHiddenLine(const char* prompt)
{
    termios saved {};
    ::tcgetattr(STDIN_FILENO, &saved);
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    std::fputs(prompt, stderr);
    std::fflush(stderr);
    const QString line = ReadLine();
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    std::fputs("\n", stderr);
    return line;
}

void RestrictNewFiles()
{
    ::umask(077);
}

bool OnInterrupt(QObject* context, std::function<void()> handler)
{
    if (::pipe(g_pipe) != 0)
        return false;
    auto* notifier = new QSocketNotifier(g_pipe[0], QSocketNotifier::Read, context);
    QObject::connect(notifier, &QSocketNotifier::activated, context, [notifier, handler] {
        notifier->setEnabled(false);
        handler();
    });
    std::signal(SIGINT, Signalled);
    std::signal(SIGTERM, Signalled);
    return true;
}

} // namespace Terminal
