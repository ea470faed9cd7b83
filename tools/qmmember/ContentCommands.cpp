// The content commands (content ..., cart add). Cli.h tells how a command is declared.
#include "Cli.h"

namespace Cli {

QList<Command> ContentCommands()
{
    return {};
}

} // namespace Cli
