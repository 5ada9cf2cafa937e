// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>
#include <vector>

#include "host/CommandDeclaration.h"

namespace MorvelCli {

using Plexum::CommandDeclaration;
using Plexum::OptionDeclaration;
using Plexum::SubcommandDeclaration;

// The options the host takes before the command, declared as a command's are.
const std::vector<OptionDeclaration>& HostOptions();

// The options the host adds to every command that works on SMMs named by
// --bmc (CommandDeclaration::smmTargets): the targets, runs over many SMMs,
// protocol and trust, password sources. The host reads them itself; the
// module finds them in its options map like its own.
const std::vector<OptionDeclaration>& SmmTargetOptions();

// Everything the command line of one command may hold: the module's
// declaration and every option it takes, the module's own first. The
// declaration lives in the loaded module, which stays loaded.
class CommandSyntax {
public:
    explicit CommandSyntax(const CommandDeclaration& declaration);

    const CommandDeclaration& Declaration() const { return *m_declaration; }
    const std::vector<OptionDeclaration>& Options() const { return m_options; }
    // The option of that name (without "--"), or null.
    const OptionDeclaration* Find(const std::string& name) const;
    std::vector<std::string> SubcommandNames() const;

private:
    const CommandDeclaration* m_declaration;
    std::vector<OptionDeclaration> m_options;
};

// The values an option takes, as a list; empty when any value goes.
std::vector<std::string> ChoicesOf(const OptionDeclaration& option);

// "a, b or c".
std::string Alternatives(const std::vector<std::string>& words);

// For a mistyped word: the one of `names` it is close to (a letter or two
// off, or a unique beginning of it), or empty when none is, or more than one.
std::string ClosestName(const std::string& typed, const std::vector<std::string>& names);

}  // namespace MorvelCli
