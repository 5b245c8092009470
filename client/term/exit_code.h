// How schedctl ends when no module decides it.
#pragma once

// Exit codes of schedctl itself. A module's exit code is used unchanged, and a signal is 128 + its number (129 to
// 192). So these begin at 200, which modules and shells rarely use.
enum exit_code : int {
    exit_usage = 200,
    exit_busy = 201,
    exit_unsupported = 202,
    exit_module_timeout = 203,
    exit_login = 204,
    exit_connection = 205,
    exit_silence = 206,
};
