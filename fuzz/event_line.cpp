// Bytes of the event pipe: they are split into lines, classified, and queued for the operators. The module list is
// empty, so follow-up commands are refused.
#include "comm/hmi_table.h"
#include "event/event_pipe.h"
#include "property/event_oracle.h"
#include "support.h"

namespace {

void check_line(hmistruc& hmi, const std::string& line) {
    const event_oracle wanted(line);
    fuzz::require((eventtype_check(wanted.text.c_str()) == event_type::monitoring_message) == wanted.is_message,
                  "daemon and check agree on what is a message");
    if (wanted.ends_process) return;
    do_eventmsg(line.c_str());
    char queued[message_size] = "";
    std::uint32_t when = 0;
    const bool was_queued = hmistruc_dequeue(hmi, queued, when) == 0;
    fuzz::require(was_queued == wanted.is_queued, "operators get every message but those of code 11");
    fuzz::require(!was_queued || wanted.text == queued, "operators get the whole message");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Suite suite;
    static hmistruc* const hmi = hmistruc_init() == 0 ? hmistruc_get() : nullptr;
    event_line line;
    std::string bytes;
    for (const char byte : fuzz::text_of(data, size)) {
        bytes += byte;
        const bool ended = byte == '\n' || bytes.size() == 1024;
        fuzz::require(line.add(byte) == ended, "daemon and check end the line at the same byte");
        if (ended) {
            bytes.pop_back();
            fuzz::require(line.text() == std::string(bytes.c_str()), "daemon and check see the same line");
            check_line(*hmi, line.text());
            bytes.clear();
        }
    }
    return 0;
}
