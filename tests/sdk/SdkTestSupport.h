// Helpers of the SDK and console tests: a recorder of delivered messages, matchers, and a plain
// TCP peer that plays the device side (the console process: tests/console/ConsoleProcess.h).
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sdk/Messages.h"
#include "sdk/Socket.h"
#include "sdk/TPWrapper.h"
#include "sdk/Wire.h"
#include "sdk_link.pb.h"

namespace sdktest {

using namespace std::chrono_literals;

template <typename T>
std::unique_ptr<SDK_NV::CMessage_Base> copyAs(const SDK_NV::CMessage_Base* m) {
    return std::make_unique<T>(*static_cast<const T*>(m));
}

inline std::unique_ptr<SDK_NV::CMessage_Base> cloneMessage(const SDK_NV::CMessage_Base* m) {
    using namespace SDK_NV;
    switch (m->getType()) {
        case MSG_CONNECT:
            return copyAs<CMessage_Connect>(m);
        case MSG_RECEIPT:
            return copyAs<CMessage_Receipt>(m);
        case MSG_DEVICE:
            return copyAs<CMessage_Device>(m);
        case MSG_BUTTON:
            return copyAs<CMessage_Button>(m);
        case MSG_FRAMEDATA:
            return copyAs<CMessage_FrameData>(m);
        case MSG_SCANDATA:
            return copyAs<CMessage_ScanData>(m);
        case MSG_CALIBDATA:
            return copyAs<CMessage_CalibData>(m);
        case MSG_LIGHTPEN:
            return copyAs<CMessage_LightpenData>(m);
        case MSG_OPTIMIZATION:
            return copyAs<CMessage_OptimizationData>(m);
        default:
            return nullptr;
    }
}

// Polls `pred` until it holds; false after the timeout. For conditions that change without a
// message being delivered (counters, the device list after a disconnection).
inline bool eventually(const std::function<bool()>& pred, std::chrono::milliseconds timeout = 10s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Keeps a copy of every delivered message, in order.
class Recorder {
public:
    SDK_NV::CTPWrapper::MessageCallBack callback() {
        return [this](SDK_NV::CMessage_Base* m) {
            auto copy = cloneMessage(m);
            std::lock_guard<std::mutex> lock(m_mutex);
            m_messages.push_back(std::move(copy));
            m_cv.notify_all();
        };
    }

    // Waits until pred(messages) holds; false on timeout.
    bool waitFor(const std::function<bool(const std::vector<const SDK_NV::CMessage_Base*>&)>& pred,
                 std::chrono::milliseconds timeout = 10s) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, timeout, [&] { return pred(viewLocked()); });
    }

    // Index of the first message at or after `from` that matches, or -1 after the timeout.
    int waitIndex(size_t from, const std::function<bool(const SDK_NV::CMessage_Base&)>& match,
                  std::chrono::milliseconds timeout = 10s) {
        int found = -1;
        waitFor(
            [&](const std::vector<const SDK_NV::CMessage_Base*>& v) {
                for (size_t i = from; i < v.size(); ++i) {
                    if (match(*v[i])) {
                        found = static_cast<int>(i);
                        return true;
                    }
                }
                return false;
            },
            timeout);
        return found;
    }

    std::vector<const SDK_NV::CMessage_Base*> snapshot() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return viewLocked();
    }
    size_t size() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages.size();
    }

private:
    std::vector<const SDK_NV::CMessage_Base*> viewLocked() const {
        std::vector<const SDK_NV::CMessage_Base*> v;
        for (const auto& m : m_messages) {
            v.push_back(m.get());
        }
        return v;
    }

    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<std::unique_ptr<SDK_NV::CMessage_Base>> m_messages;  // never shrinks
};

// Matchers
inline std::function<bool(const SDK_NV::CMessage_Base&)> isConnect(bool up) {
    return [up](const SDK_NV::CMessage_Base& m) {
        return m.getType() == SDK_NV::MSG_CONNECT &&
               static_cast<const SDK_NV::CMessage_Connect&>(m).getConnect() == up;
    };
}

inline std::function<bool(const SDK_NV::CMessage_Base&)> isResponse(int code) {
    return [code](const SDK_NV::CMessage_Base& m) {
        if (m.getType() != SDK_NV::MSG_RECEIPT) {
            return false;
        }
        const auto& r = static_cast<const SDK_NV::CMessage_Receipt&>(m);
        SDK_NV::tagWorkRespons w;
        r.getWorkResponsInfo(&w);
        return r.getReceiptKind() == SDK_NV::RECEIPT_WORK_RESPONSE && w.code == code;
    };
}

inline std::function<bool(const SDK_NV::CMessage_Base&)> isReceipt(int kind) {
    return [kind](const SDK_NV::CMessage_Base& m) {
        return m.getType() == SDK_NV::MSG_RECEIPT &&
               static_cast<const SDK_NV::CMessage_Receipt&>(m).getReceiptKind() == kind;
    };
}

inline std::function<bool(const SDK_NV::CMessage_Base&)> isType(int type) {
    return [type](const SDK_NV::CMessage_Base& m) { return m.getType() == type; };
}

inline int responseState(const SDK_NV::CMessage_Base& m) {
    SDK_NV::tagWorkRespons w;
    static_cast<const SDK_NV::CMessage_Receipt&>(m).getWorkResponsInfo(&w);
    return w.state;
}

// A frame header as the wire carries it: magic, frame length and envelope length, little-endian.
inline std::string frameHeader(uint32_t magic, uint32_t frameBytes, uint32_t envelopeBytes) {
    std::string h;
    for (uint32_t v : {magic, frameBytes, envelopeBytes}) {
        for (int i = 0; i < 4; ++i) {
            h.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
        }
    }
    return h;
}

// ---------------------------------------------------------------------------------------------
// A device-side peer: one listening socket, one client at a time, raw bytes.
// ---------------------------------------------------------------------------------------------

class TestPeer {
public:
    // Listens on `port` (0: a free one).
    explicit TestPeer(uint16_t port = 0) {
        SDK_NV::wire::Endpoint ep;
        ep.port = port;
        m_listener = SDK_NV::net::listenTcp(ep, 4, &m_port);
    }
    ~TestPeer() {
        SDK_NV::net::closeSocket(m_client);
        SDK_NV::net::closeSocket(m_listener);
    }
    std::string endpoint() const { return "127.0.0.1:" + std::to_string(m_port); }
    bool valid() const { return m_listener != SDK_NV::net::kInvalidSocket; }

    bool accept(std::chrono::milliseconds timeout = 10s) {
        if (SDK_NV::net::waitReadable(m_listener, static_cast<int>(timeout.count())) != 1) {
            return false;
        }
        SDK_NV::net::closeSocket(m_client);
        m_client = SDK_NV::net::acceptClient(m_listener);
        return m_client != SDK_NV::net::kInvalidSocket;
    }
    void close() { SDK_NV::net::closeSocket(m_client); }

    bool sendRaw(const std::string& bytes) {
        return SDK_NV::net::sendAll(m_client, bytes.data(), bytes.size());
    }
    bool sendMessage(SDK_NV::CMessage_Base& m) {
        std::vector<char> body;
        return m.pack(&body) >= 0 && sendBody(static_cast<uint32_t>(m.getType()),
                                              std::string(body.begin(), body.end()), m.getID());
    }
    bool sendBody(uint32_t type, const std::string& body, int id = 0) {
        std::string frame;
        return SDK_NV::wire::encodeFrame(type, id, nullptr, ++m_seq, body.data(), body.size(),
                                         frame) &&
               sendRaw(frame);
    }

    // True when the client has closed its end (reads until EOF or the timeout).
    bool waitClosed(std::chrono::milliseconds timeout = 5s) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            if (SDK_NV::net::waitReadable(m_client, 50) == 1) {
                char buf[4096];
                if (SDK_NV::net::recvSome(m_client, buf, sizeof(buf)) <= 0) {
                    return true;
                }
            }
        }
        return false;
    }

private:
    SDK_NV::net::socket_t m_listener = SDK_NV::net::kInvalidSocket;
    SDK_NV::net::socket_t m_client = SDK_NV::net::kInvalidSocket;
    uint16_t m_port = 0;
    uint64_t m_seq = 0;
};

}  // namespace sdktest
