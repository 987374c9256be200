#include "answer.h"

#include <exception>

#include "business.h"
#include "service.h"
#include "trace.h"

namespace gateway {

const std::string_view kBadLength = "전문 길이 항목이 올바르지 않습니다.";
const std::string_view kCutOff = "전문이 끝나기 전에 연결이 끊어졌습니다.";

namespace {

constexpr std::string_view kSystem = "GWY";

// What no service has thought of fails this request, not the gateway.
Outcome serve_or_fail(Ledger& ledger, const Telegram& request, Telegram& response) {
  try {
    return serve(ledger, request, response);
  } catch (const std::exception& error) {
    return {'9', {{}, {{"GWY009999", error.what()}}, {}}};
  }
}

// The head of the request goes back with the answer.
Telegram response_to(const Telegram& request) {
  Telegram response = request;
  response.resize(kHeaderSize);
  response.set(_RQST_RSPS_DV_CD, "R");
  response.set(_TRMS_SYS_CD, kSystem);
  response.set(_PROC_RSLT_DV_CD, "0");
  response.set(_STD_TMSG_DAT_KIND_CD, kDataKind);
  return response;
}

void set_outcome(Telegram& response, const Outcome& outcome) {
  if (outcome.result == '0') return;
  response.set(_PROC_RSLT_DV_CD, {&outcome.result, 1});
  response.set(_DSBL_SYS_CD, kSystem);
  const auto& messages = outcome.part.messages;
  response.set(_STD_TMSG_ERR_CD, messages.empty() ? "GWY008000" : messages[0].code);
  response.set_error_part(outcome.part);
}

// Another system's error is on its way through: it goes on as it came, whole or not.
Telegram pass_on(const Telegram& error) {
  inform(error, "다른 시스템의 오류를 전달합니다. [" + std::string(error.get(_DSBL_SYS_CD)) + "]");
  if (!error.error_part()) inform(error, "전달하는 전문의 오류부가 올바르지 않습니다.");
  Telegram passed = error;
  passed.set(_RQST_RSPS_DV_CD, "R");
  return passed;
}

Telegram process(Ledger& ledger, const Telegram& request) {
  if (request.get(_STD_TMSG_DAT_KIND_CD) == "EM") return pass_on(request);
  Telegram response = response_to(request);
  set_outcome(response, serve_or_fail(ledger, request, response));
  return response;
}

}  // namespace

std::string answer(Ledger& ledger, const Telegram& request) {
  const TracedService service(request);
  Telegram response = process(ledger, request);
  response.finish();
  service.end(response);
  return response.bytes();
}

std::string refuse(std::string_view received, std::string_view reason) {
  const Telegram request{std::string(received)};
  report_broken(request, reason);
  Telegram response = response_to(request);
  set_outcome(response, {'9', {{}, {{"GWY009000", std::string(reason)}}, {}}});
  return response.finish();
}

bool is_client_handlers(const Telegram& request) {
  return request.get(_RECV_SVC_CD).starts_with("CLH");
}

}  // namespace gateway
