#pragma once
// The command-line tool `fontrix`.

namespace fontrix::host {

/// Runs the tool: 0 on success, 1 when the command failed, 2 for a usage error, 130 when
/// interrupted.
int RunCli(int argc, char** argv);

}  // namespace fontrix::host
