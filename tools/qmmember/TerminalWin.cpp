#include "Terminal.h"

#include <QMetaObject>
#include <QObject>

#include <cstdio>
#include <iostream>
#include <string>
#include <io.h>
#include <windows.h>

namespace Terminal {

namespace {
QObject* g_context = nullptr;
std::function<void()> g_handler;

// Runs on a thread of the system's; the handler is queued to the context's thread.
BOOL WINAPI ConsoleEvent(DWORD)
{
    if (g_context)
        QMetaObject::invokeMethod(g_context, [] { g_handler(); }, Qt::QueuedConnection);
    return TRUE;
}
} // namespace

bool InputIsTerminal()
{
    return _isatty(_fileno(stdin));
}

bool ErrorIsTerminal()
{
    return _isatty(_fileno(stderr));
}

bool OutputIsTerminal()
{
    return _isatty(_fileno(stdout));
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
    HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    DWORD saved = 0;
    GetConsoleMode(input, &saved);
    SetConsoleMode(input, saved & ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
    std::fputs(prompt, stderr);
    std::fflush(stderr);
    const QString line = ReadLine();
    SetConsoleMode(input, saved);
    std::fputs("\n", stderr);
    return line;
}

void RestrictNewFiles()
{
    // New files inherit the folder's access list, which is the user's own profile by default.
}

bool OnInterrupt(QObject* context, std::function<void()> handler)
{
    g_context = context;
    g_handler = std::move(handler);
    return SetConsoleCtrlHandler(ConsoleEvent, TRUE) != 0;
}

} // namespace Terminal
