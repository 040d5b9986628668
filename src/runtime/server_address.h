// The address of this server as a client reached it, for redirects.
#pragma once

#include <string>
#include <string_view>

struct Run;

// "http://host" or "https://host:port" from the CGI environment: the host
// is SERVER_NAME, or HTTP_HOST when SERVER_NAME is unset or empty (or not a
// host name); ":port" follows when SERVER_PORT is not the scheme's default
// and the host carries no port; the scheme is https when HTTPS is "on".
// Without a usable host, "localhost".
std::string server_base_url(Run& run);

// True for "name", "name:port", "[v6]" and "[v6]:port" with DNS name
// characters, an IPv6 literal in brackets and a decimal port.
bool is_host_and_port(std::string_view text);
