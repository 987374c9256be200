#include "trace.h"

#include "examples/common/gid.h"
#include "varn/tran.hpp"

namespace gateway {
namespace {

constexpr std::size_t kGidSize = 32;
constexpr std::string_view kOtherChannel = "O";
constexpr std::string_view kBrokenTelegram = "2101";

// A linked channel's transaction has a GID of its own, and the gateway another one for its part in
// it. Everyone else's goes on under the GID that the channel gave to it.
std::string gid_for(const Telegram& request) {
  const std::string_view channel = request.get(_CHNL_TYP_CD);
  const bool is_linked = channel == "ICT" || channel == "ICC";
  std::string gid = is_linked ? example::new_gid("GWY") : std::string(request.get(_GLBL_ID));
  gid.resize(kGidSize, ' ');
  return gid;
}

std::string svc_id_for(const Telegram& request) {
  const std::string_view service = request.get(_RECV_SVC_CD);
  return service.empty() ? "UNKNOWN" : std::string(service);
}

int trace(decltype(TRAN_STARTX) tran, const std::string& gid, const std::string& svc_id,
          const std::string& telegram) {
  constexpr int kStandardLayout = 1;
  constexpr int kNotExtended = 0;
  return tran(varn::kCallingThread, nullptr, 0, nullptr, 0, gid.data(), kGidSize, svc_id.data(),
              static_cast<int>(svc_id.size()), telegram.data(), static_cast<int>(telegram.size()),
              kStandardLayout, kNotExtended);
}

}  // namespace

TracedService::TracedService(const Telegram& request)
    : gid_(gid_for(request)),
      svc_id_(svc_id_for(request)),
      start_rc_(trace(TRAN_STARTX, gid_, svc_id_, request.bytes())) {}

// A request that was too short to be logged has not been started, and what is not started has no
// end. After all other refusals the agent itself knows what to make of it.
void TracedService::end(const Telegram& response) const {
  if (start_rc_ != TRAN_RC_SHORT_TELEGRAM) trace(TRAN_ENDX, gid_, svc_id_, response.bytes());
}

// The GID is given because the client handler's services are not kept, so that the agent could not
// add it.
void inform(const Telegram& request, std::string_view message) {
  const std::string_view gid = request.get(_GLBL_ID);
  TRAN_INFO(varn::kCallingThread, nullptr, 0, nullptr, 0, gid.data(), static_cast<int>(gid.size()),
            nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, message.data(),
            static_cast<int>(message.size()));
}

void report_broken(const Telegram& received, std::string_view reason) {
  varn::event({.code = kBrokenTelegram,
               .message = reason,
               .chnl_class = kOtherChannel,
               .gid = received.get(_GLBL_ID),
               .svc_id = "GATEWAY"});
}

}  // namespace gateway
