// Endpoints of the console as the user writes them.
#pragma once

#include <cstdint>
#include <string>

namespace host {

// Splits "host:port", ":port" or "port" (host 127.0.0.1). False when it does not parse.
bool splitEndpoint(const std::string& text, std::string& host, uint16_t& port);

}  // namespace host
