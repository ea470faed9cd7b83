#pragma once

#include <QString>

#include <functional>

class QObject;

// What the command line needs of the terminal; one file per platform.
namespace Terminal {

/// True when standard input (or standard error) is a terminal.
bool InputIsTerminal();
bool ErrorIsTerminal();
/// True when standard output is a terminal (long output may then go through a pager).
bool OutputIsTerminal();

/// One line of standard input, UTF-8, without its line end.
QString ReadLine();

/// Shows \a prompt on standard error and reads a line from the terminal without echo.
/// Echo is off before the prompt shows, so nothing typed after it is echoed.
QString ReadHiddenLine(const char* prompt);

/// New files of this process are made for the owner only (they may carry a token).
void RestrictNewFiles();

/// Calls \a handler in \a context's thread on Ctrl-C (or a termination request).
bool OnInterrupt(QObject* context, std::function<void()> handler);

} // namespace Terminal
