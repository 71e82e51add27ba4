#pragma once

#include <string_view>

namespace qv {

// Whether text is what the queue service writes into a cache file, so that
// a file it did not write is never posted:
// - a queue's payload: a JSON dictionary holding "messageVersion" (a
//   string), "serialNumber" (a number) and "sessions" (an array);
// - when messageAllowed (the module posts URL-encoded, one message a post):
//   also one message's JSON, a dictionary holding "offset" (a number).
// Other keys are allowed and the sessions are not inspected: the check is
// one streaming pass over the text that builds nothing, so a file near the
// size limit costs no more memory than its text. Nesting deeper than a
// property list may go is refused.
bool isCachedQueueText(std::string_view text, bool messageAllowed);

}  // namespace qv
