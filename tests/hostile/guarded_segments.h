// Every segment that the process attaches has unreadable memory on both sides, and behind its last
// byte, where its page goes on, a pattern: sanitizers do not see a segment's ends.
#pragma once

namespace varn::test {

// Whether nothing was written behind any segment that is attached now.
bool segment_tails_are_whole();

}  // namespace varn::test
