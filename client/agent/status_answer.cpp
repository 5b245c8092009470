#include "agent/status_answer.h"

namespace client {

status_report report_of(const status_answer& answer) {
    std::string text;
    for (const status_line& line : answer.lines) {
        text += line.text + "\n";
    }
    return parse_status(text);
}

}  // namespace client
