// What stands behind a telegram's header when its data kind is "DT": the fields that the gateway
// and the channels have agreed upon.
#pragma once

#include <string_view>

#include "varn/sttl.h"

namespace gateway {

inline constexpr std::string_view kDataKind = "DT";

inline constexpr tran_sttl_field kAccount = {514, 14};     // of the customer who asks
inline constexpr tran_sttl_field kCounterBank = {528, 3};  // blank for this bank
inline constexpr tran_sttl_field kCounterAccount = {531, 14};
inline constexpr tran_sttl_field kAmount = {545, 13};   // won, digits
inline constexpr tran_sttl_field kHolder = {558, 20};   // in the answer
inline constexpr tran_sttl_field kBalance = {578, 13};  // in the answer

// Their first nine characters name the service, the others its version.
inline constexpr std::string_view kBalanceService = "DEPBAL001V01";
inline constexpr std::string_view kTransferService = "DEPXFR001V02";
inline constexpr std::string_view kClientHandlerService =
    "CLHBAL001V01";  // balance, at the counter

// Banks that a transfer cannot reach.
inline constexpr std::string_view kBankUnderMaintenance = "020";
inline constexpr std::string_view kBankWithoutAnswer = "088";

}  // namespace gateway
