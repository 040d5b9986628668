// Network limits: defaults and their environment overrides.
#include "net/net_limits.h"

#include <cstdlib>
#include <optional>

namespace {

std::optional<NetLimits> g_limits;

// A positive whole number of at most 12 digits, or nothing.
std::optional<size_t> positive_number(const char* name) {
  const char* text = std::getenv(name);
  if (!text || !*text) return std::nullopt;
  size_t value = 0, digits = 0;
  for (const char* p = text; *p; ++p) {
    if (*p < '0' || *p > '9' || ++digits > 12) return std::nullopt;
    value = value * 10 + static_cast<size_t>(*p - '0');
  }
  if (value == 0) return std::nullopt;
  return value;
}

void apply(const char* name, size_t& field) {
  if (auto value = positive_number(name)) field = *value;
}

void apply(const char* name, int& field) {
  if (auto value = positive_number(name); value && *value <= 86400 * 365) field = static_cast<int>(*value);
}

}  // namespace

NetLimits net_limits_from_environment() {
  NetLimits limits;
  apply("CVML_NET_DEADLINE", limits.deadline_seconds);
  apply("CVML_NET_TIMEOUT", limits.timeout_seconds);
  apply("CVML_NET_STATUS_LINE_MAX", limits.status_line_max);
  apply("CVML_NET_HEADER_LINE_MAX", limits.header_line_max);
  apply("CVML_NET_HEADER_COUNT_MAX", limits.header_count_max);
  apply("CVML_NET_BODY_MAX", limits.body_max);
  apply("CVML_NET_LINE_MAX", limits.line_max);
  return limits;
}

const NetLimits& net_limits() {
  if (!g_limits) g_limits = net_limits_from_environment();
  return *g_limits;
}

void net_set_limits(const NetLimits& limits) { g_limits = limits; }

std::string net_limit_text(const char* what, size_t limit, const char* unit, const char* variable) {
  return "Error:  " + std::string(what) + " exceeded the limit of " + std::to_string(limit) + " " + unit + " (" +
         variable + ").\n";
}
