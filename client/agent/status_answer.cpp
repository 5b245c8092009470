#include "agent/status_answer.h"

namespace client {

std::string text_of(const status_answer& answer) {
    std::string text;
    for (const status_line& line : answer.lines) {
        text += line.text + "\n";
    }
    return text;
}

status_report report_of(const status_answer& answer) {
    return parse_status(text_of(answer));
}

}  // namespace client
