// The launcher commands (products, purchases, redirect-link, language-packs, plugin, eula). Cli.h tells how a command is declared.
#include "Cli.h"

namespace Cli {

QList<Command> LauncherCommands()
{
    return {};
}

} // namespace Cli
