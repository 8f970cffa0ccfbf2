// The replay: a recording (console/Recording.h) played back to clients of the link in place of
// the simulated devices, with the recorded timing or without pauses.
#pragma once

#include <atomic>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string>

#include "console/Console.h"
#include "console/Recording.h"

namespace console {

class Replayer {
public:
    explicit Replayer(const ConsoleOptions& options);
    ~Replayer();

    // Reads the whole recording through before anything is served; false with a message
    // when it is damaged.
    bool check(std::string& error);
    // Binds the endpoint and prints "[lumora_console] listening on host:port".
    bool start();
    uint16_t port() const { return m_port; }
    // Serves until quit, or until the recording was played with --replay-exit. 0, or 2 when
    // the recording could not be read any more.
    int run();
    void requestQuit() { m_quit.store(true); }

private:
    bool rewind(std::string& error);
    bool advance();  // loads the next record; false at the end or on damage
    void accept();
    void closeClient(const char* why, bool graceful);
    void readClient();
    void readStdin();
    void play();
    void finishIfAtEnd();   // says so once the recording is played (and ends with --replay-exit)
    int64_t dueUs() const;  // when the next record is due (steady clock), -1: nothing due
    int64_t nowUs() const;

    ConsoleOptions m_options;
    std::atomic<bool> m_quit{false};
    int m_exitCode = 0;

    std::ifstream m_file;
    std::unique_ptr<rec::Reader> m_reader;
    rec::Record m_next;
    bool m_haveNext = false;      // m_next holds the next record to play
    bool m_inConnection = false;  // a recorded connection is being played
    int64_t m_connectionUs = 0;   // recorded time of the connection being played
    int64_t m_clientUs = 0;       // when the client of that connection came (steady clock)
    uint64_t m_sent = 0;
    bool m_finished = false;

    SDK_NV::net::socket_t m_listener = SDK_NV::net::kInvalidSocket;
    SDK_NV::net::socket_t m_client = SDK_NV::net::kInvalidSocket;
    uint16_t m_port = 0;
    std::unique_ptr<SDK_NV::wire::FrameDecoder> m_decoder;
    std::string m_stdinBuffer;
    bool m_stdinOpen = true;
};

}  // namespace console
