// Where reports go: after the page (the default for CGI), or to the
// server's error log (standard error) with the request's URI and a time
// stamp, the visitor seeing only a short notice.  Production sites use the
// log: reports show page source, paths, connection strings and variables.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct Run;

enum ReportMode : uint8_t { REPORTS_PAGE = 0, REPORTS_LOG = 1 };

// The mode of every run of the process.  The FastCGI server sets
// REPORTS_LOG; CGI takes CVML_REPORTS ("log" selects the log).
void set_report_mode(ReportMode mode);
ReportMode report_mode();
ReportMode report_mode_from_environment();

// What the visitor sees after a page that ended in an error, in log mode.
std::string report_notice(const Run& run);
// The run's report buffers (SQL statistics, statistics and dumps, errors
// and warnings) as log lines: "<time> cvml: <URI>: <line>", every line of
// the reports on a line of its own, control bytes shown as \xHH.
std::string report_log_text(const Run& run, std::string_view time_stamp);
// Writes report_log_text with the current local time to standard error.
void log_reports(Run& run);
