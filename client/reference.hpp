// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "codec.hpp"
#include "description.hpp"
#include "transport.hpp"

#include <map>
#include <optional>
#include <string>
#include <vector>

/* The command reference (docs/commands.md) and the help of one command,
 * written from the description. */
namespace oemclient
{

/* An example request and what the board answered to it. */
struct ExampleRun
{
    std::vector<std::string> arguments;
    Request request;
    std::optional<Reply> reply; // none: not run
};

/* Runs every example of every command, in the description's order. */
std::map<std::string, std::vector<ExampleRun>>
    runExamples(const Description& description, Transport* transport);

/* "ipmi-oem [CONNECTION] NAME ARG..." */
std::string usageLine(const Command& command);

/* One command's section: request, answers, completion codes, examples. */
std::string commandSection(const Description& description,
                           const Command& command,
                           const std::vector<ExampleRun>& runs);

std::string referenceMarkdown(
    const Description& description,
    const std::map<std::string, std::vector<ExampleRun>>& runs);

} // namespace oemclient
