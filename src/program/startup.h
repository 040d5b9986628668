// Program entry: mode decision, page location, start-up and the request.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct Run;
struct RequestIO;
struct RunLimits;

// Runs one request: the whole life of the process.  Always returns 0.
int cvml_main(int argc, char** argv, char** envp);

// Reads settings that hold for the whole process (CVML_GENERAL_PATH).
void configure_program();
// Runs one request in a run of its own: the page its environment names,
// the body read and the response written through `io`.
void run_request(std::vector<std::string> argv, std::vector<std::string> env, const RequestIO& io);
// For harnesses that run many pages in one process (fuzzing): every later
// cvml_main stops its page after this many tags; 0, the default, is no limit.
void set_tag_limit_for_runs(uint32_t limit);
// The budget every later run gets; configure_program() sets it from the
// CVML_MAX_* variables, a server from its flags afterwards.
void set_limits_for_runs(const RunLimits& limits);
// The bounds in force now.
const RunLimits& run_limits_in_force();

bool cgi_setup(Run& run);
void config_setup(Run& run, std::string_view program_path);
void defaults_setup(Run& run);
bool engine_init(Run& run);



