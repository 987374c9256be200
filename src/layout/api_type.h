// Which exported call composes a record; some record kinds are validated differently for some
// calls.
#pragma once

namespace varn {

enum ApiType : int {
  kStartApi = 100,
  kEndApi,
  kErrorApi,
  kErrInfoApi,
  kCallInfoSApi,
  kCallInfoFApi,
  kSqlStmtApi,
  kInfoApi,
  kInfoExApi,
  kEventApi,
  kClhStartApi,
  kClhEndApi,
  kClhErrorApi,
  kFepStartApi,
  kFepEndApi,
  kFepErrorApi,
  kPtStartApi,
  kPtEndApi,
  kWebStartApi,
  kWebEndApi,
};
static_assert(kWebEndApi == 119);

}  // namespace varn
