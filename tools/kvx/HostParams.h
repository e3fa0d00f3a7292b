#pragma once

#include "kvx/messaging/MsgRequest.h"

#include <optional>

/// A whole number from a request's parameter, `fallback` if the request hasn't got it. Without a number in bounds, or
/// without either, it sets error 87 on the response and gives nothing.
std::optional<LONGLONG> ReadNumber(CMsgRequest & request, LPCTSTR name, std::optional<LONGLONG> fallback,
                                   LONGLONG minimum, LONGLONG maximum);
