#include "Endpoint.h"

namespace host {

bool splitEndpoint(const std::string& text, std::string& host, uint16_t& port) {
    const size_t colon = text.rfind(':');
    const std::string h = colon == std::string::npos ? std::string() : text.substr(0, colon);
    const std::string p = colon == std::string::npos ? text : text.substr(colon + 1);
    if (p.empty() || p.size() > 5 || p.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    const unsigned long value = std::stoul(p);
    if (value > 65535) {
        return false;
    }
    host = h.empty() ? "127.0.0.1" : h;
    port = static_cast<uint16_t>(value);
    return true;
}

}  // namespace host
