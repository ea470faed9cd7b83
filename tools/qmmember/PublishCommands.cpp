// The publish commands (publish FILE ...). Cli.h tells how a command is declared.
#include "Cli.h"

namespace Cli {

QList<Command> PublishCommands()
{
    return {};
}

} // namespace Cli
