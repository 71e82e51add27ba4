#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace qv {

// How many messages text carries when it is what the queue service writes
// into a cache file (the entries of every session's "messages"; 1 for one
// message's JSON), and none when it is not, so that a file the service did
// not write is never posted:
// - a queue's payload: a JSON dictionary holding "messageVersion" (a
//   string), "serialNumber" (a number) and "sessions" (an array);
// - when messageAllowed (the module posts URL-encoded, one message a post):
//   also one message's JSON, a dictionary holding "offset" (a number).
// Other keys are allowed and the sessions are not checked, only counted:
// the check is one streaming pass over the text that builds nothing, so a
// file near the size limit costs no more memory than its text. Nesting
// deeper than a property list may go is refused.
std::optional<std::size_t> cachedQueueMessageCount(std::string_view text, bool messageAllowed);

}  // namespace qv
