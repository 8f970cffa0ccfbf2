// The replay: plays a recording's sent frames to the client, connection by connection.
#include "console/Replay.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "Internal.h"
#include "platform/Platform.h"
#include "sdk_link.pb.h"

namespace console {

using namespace SDK_NV;

namespace {
constexpr int kSendTimeoutMs = 10000;
constexpr int kCloseWaitMs = 1000;  // a graceful close waits this long for the client's end
}  // namespace

Replayer::Replayer(const ConsoleOptions& options)
    : m_options(options), m_decoder(std::make_unique<wire::FrameDecoder>()) {}

Replayer::~Replayer() {
    net::closeSocket(m_client);
    net::closeSocket(m_listener);
}

int64_t Replayer::nowUs() const {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool Replayer::check(std::string& error) {
    std::ifstream in(m_options.record.replayPath, std::ios::binary);
    if (!in) {
        error = "cannot open " + m_options.record.replayPath;
        return false;
    }
    rec::Summary summary;
    if (!rec::checkRecording(in, summary, error)) {
        return false;
    }
    if (summary.sent == 0) {
        error = "the recording holds no frame the console sent";
        return false;
    }
    say("replaying " + m_options.record.replayPath + ": " + std::to_string(summary.sent) +
        " messages sent in " + std::to_string(summary.connections) + " connections over " +
        std::to_string(summary.lastUs / 1000) + " ms");
    return rewind(error);
}

bool Replayer::rewind(std::string& error) {
    m_file.close();
    m_file.clear();
    m_file.open(m_options.record.replayPath, std::ios::binary);
    m_reader = std::make_unique<rec::Reader>(m_file);
    m_inConnection = false;
    m_finished = false;
    m_sent = 0;
    if (!m_file || !m_reader->readHeader(error)) {
        return false;
    }
    return advance() || m_exitCode == 0;
}

bool Replayer::advance() {
    std::string error;
    const int rc = m_reader->next(m_next, error);
    m_haveNext = rc == 1;
    if (rc < 0) {
        // Checked before the start: the file changed under the replay.
        say("replay: " + error);
        m_exitCode = 2;
        m_quit.store(true);
    }
    return m_haveNext;
}

bool Replayer::start() {
    platform::socketStartup();
    m_listener = net::listenTcp(m_options.endpoint, 4, &m_port);
    if (m_listener == net::kInvalidSocket) {
        say("cannot listen on " + m_options.endpoint.text());
        return false;
    }
    say("listening on " + m_options.endpoint.host + ":" + std::to_string(m_port));
    return true;
}

void Replayer::accept() {
    net::socket_t c = net::acceptClient(m_listener);
    if (c == net::kInvalidSocket) {
        return;
    }
    if (m_client != net::kInvalidSocket) {
        closeClient("replaced by a new client", false);
    }
    m_client = c;
    net::setSendTimeout(m_client, kSendTimeoutMs);
    m_decoder->reset();
    // Where the previous client left the recording at a recorded disconnection, this client
    // gets the next recorded connection; otherwise the recording starts over.
    if (m_inConnection || !m_haveNext) {
        std::string error;
        if (!rewind(error)) {
            say("replay: " + error);
            m_exitCode = 2;
            m_quit.store(true);
            return;
        }
    }
    m_inConnection = true;
    m_connectionUs = m_haveNext ? m_next.timeUs : 0;
    if (m_haveNext && m_next.kind == rec::Connected) {
        advance();
    }
    m_clientUs = nowUs();
    say("client connected");
}

void Replayer::closeClient(const char* why, bool graceful) {
    if (m_client == net::kInvalidSocket) {
        return;
    }
    if (graceful) {
        // Everything sent is delivered before the end: shut the sending side, then read until
        // the client closes too (unread input would make the close reset the connection).
        platform::shutdownSocket(m_client, true);
        const int64_t until = nowUs() + int64_t{kCloseWaitMs} * 1000;
        char buf[4096];
        while (nowUs() < until &&
               net::waitReadable(m_client, static_cast<int>((until - nowUs()) / 1000) + 1) == 1 &&
               net::recvSome(m_client, buf, sizeof(buf)) > 0) {
        }
    }
    net::closeSocket(m_client);
    say(std::string("client dropped: ") + why);
}

void Replayer::readClient() {
    size_t capacity = 0;
    char* p = m_decoder->writable(&capacity);
    const long n = p != nullptr ? net::recvSome(m_client, p, capacity) : -1;
    if (n <= 0) {
        closeClient(n == 0 ? "closed by the client" : "read error", false);
        return;
    }
    // The client's commands are read and, with --verbose, shown; the recorded answers come at
    // their recorded times.
    struct Sink : wire::FrameDecoder::Sink {
        bool verbose = false;
        std::vector<int32_t> probes;  // keep-alive probes to answer
        void onFrame(const wire::Frame& f) override {
            if (f.type == static_cast<uint32_t>(wire::kKeepAliveType)) {
                probes.push_back(f.id);
                return;
            }
            sdk_link::Command c;
            if (verbose && f.type == static_cast<uint32_t>(wire::kCommandType) &&
                c.ParseFromArray(f.body, static_cast<int>(f.bodySize))) {
                say("command " + c.name());
            }
        }
        void onDrop(wire::DropReason, const std::string&) override {}
    } sink;
    sink.verbose = m_options.verbose;
    if (!m_decoder->commit(static_cast<size_t>(n), sink)) {
        closeClient("frame boundary lost", false);
        return;
    }
    // The link's keep-alive is answered live, between the recorded frames: it belongs to this
    // connection, not to the recording.
    for (int32_t id : sink.probes) {
        std::string head;
        if (m_client == net::kInvalidSocket ||
            !wire::encodeFrameHead(static_cast<uint32_t>(wire::kKeepAliveType), id, nullptr, 0,
                                   wire::monotonicNs(), 0, head) ||
            !net::sendAll(m_client, head.data(), head.size())) {
            break;
        }
    }
}

void Replayer::readStdin() {
    char buf[4096];
    const long k = platform::readStandardInput(buf, sizeof(buf));
    if (k <= 0) {
        m_stdinOpen = false;
        return;
    }
    m_stdinBuffer.append(buf, static_cast<size_t>(k));
    for (size_t eol; (eol = m_stdinBuffer.find('\n')) != std::string::npos;) {
        const std::string line = m_stdinBuffer.substr(0, eol);
        m_stdinBuffer.erase(0, eol + 1);
        std::vector<std::string> w;
        std::string error;
        if (!splitControlLine(line, w, error)) {
            say("control: " + error);
        } else if (w.empty() || w[0][0] == '#') {
        } else if (w[0] == "quit" && w.size() == 1) {
            m_quit.store(true);
        } else if (w[0] == "say") {
            say(restOfLine(line, 1));
        } else {
            say("control: a replay takes only quit and say");
        }
    }
}

int64_t Replayer::dueUs() const {
    if (m_client == net::kInvalidSocket || !m_haveNext) {
        return -1;
    }
    const double speed = m_options.record.replaySpeed;
    if (speed <= 0.0 || m_next.kind == rec::Received) {
        return m_clientUs;  // at once
    }
    return m_clientUs + std::llround(static_cast<double>(m_next.timeUs - m_connectionUs) / speed);
}

void Replayer::play() {
    while (m_client != net::kInvalidSocket && m_haveNext && !m_quit.load()) {
        if (nowUs() < dueUs()) {
            return;
        }
        if (m_next.kind == rec::Connected || m_next.kind == rec::Disconnected) {
            // The recorded connection ends here, and so does the client's. A Connected record
            // stays for the next client.
            if (m_next.kind == rec::Disconnected) {
                advance();
            }
            m_inConnection = false;
            closeClient("as recorded", true);
            finishIfAtEnd();
            return;
        }
        if (m_next.kind == rec::Sent) {
            bool ok = net::sendAll(m_client, m_next.bytes.data(), m_next.bytes.size());
            if (ok && (m_next.flags & rec::kFlagPadded) != 0) {
                // An oversized frame: its zeros up to the declared length, as on the link.
                uint64_t declared = 0;
                for (int i = 7; i >= 4; --i) {
                    declared = (declared << 8) | static_cast<unsigned char>(m_next.bytes[i]);
                }
                static const std::vector<char> zeros(size_t{1} << 20, 0);
                for (uint64_t left = declared - (m_next.bytes.size() - wire::kHeaderBytes);
                     ok && left > 0;) {
                    const size_t k = static_cast<size_t>(std::min<uint64_t>(left, zeros.size()));
                    ok = net::sendAll(m_client, zeros.data(), k);
                    left -= k;
                }
            }
            if (!ok) {
                closeClient("write failed", false);
                return;
            }
            ++m_sent;
        }
        advance();
        finishIfAtEnd();
    }
}

void Replayer::finishIfAtEnd() {
    if (m_haveNext || m_exitCode != 0 || m_finished) {
        return;
    }
    m_finished = true;
    say("replay finished: " + std::to_string(m_sent) + " messages sent");
    if (m_options.record.replayExit) {
        closeClient("the replay ended", true);
        m_quit.store(true);
    }
}

int Replayer::run() {
    while (!m_quit.load()) {
        platform::SocketWait waits[3];
        int n = 0;
        const int stdinIndex = m_options.readStdin && m_stdinOpen ? n : -1;
        if (stdinIndex >= 0) {
            waits[n++].standardInput = true;
        }
        const int listenIndex = n;
        waits[n++].socket = m_listener;
        const int clientIndex = m_client != net::kInvalidSocket ? n : -1;
        if (clientIndex >= 0) {
            waits[n++].socket = m_client;
        }
        int timeoutMs = 200;
        const int64_t due = dueUs();
        if (due >= 0) {
            timeoutMs =
                static_cast<int>(std::clamp<int64_t>((due - nowUs() + 999) / 1000, 0, timeoutMs));
        }
        if (platform::waitSockets(waits, static_cast<size_t>(n), timeoutMs) > 0) {
            if (stdinIndex >= 0 && waits[stdinIndex].ready) {
                readStdin();
            }
            if (waits[listenIndex].ready) {
                accept();
            }
            if (clientIndex >= 0 && m_client != net::kInvalidSocket && waits[clientIndex].ready) {
                readClient();
            }
        }
        play();
    }
    return m_exitCode;
}

}  // namespace console
