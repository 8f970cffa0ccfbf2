#include "Progress.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include "host/Session.h"

namespace pfapp {

Progress::Progress(std::string label, std::string unit, size_t total, double seconds, bool terminal,
                   std::FILE* out)
    : m_label(std::move(label)),
      m_unit(std::move(unit)),
      m_total(total),
      m_seconds(seconds),
      m_terminal(terminal),
      m_out(out),
      m_start(std::chrono::steady_clock::now()),
      m_lastDraw(m_start) {}

void Progress::update(size_t done) {
    const auto now = std::chrono::steady_clock::now();
    const double since = std::chrono::duration<double>(now - m_lastDraw).count();
    if (m_drawn && since < (m_terminal ? 0.1 : 1.0)) {
        return;
    }
    m_lastDraw = now;
    draw(done, false);
}

void Progress::finish(size_t done) {
    draw(done, true);
}

void Progress::draw(size_t done, bool final) {
    m_drawn = true;
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    const double rate = elapsed > 0 ? static_cast<double>(done) / elapsed : 0.0;
    double fraction = -1.0;
    double left = -1.0;
    if (m_seconds > 0) {
        fraction = std::min(1.0, elapsed / m_seconds);
        left = std::max(0.0, m_seconds - elapsed);
    } else if (m_total > 0) {
        fraction = std::min(1.0, static_cast<double>(done) / static_cast<double>(m_total));
        left = rate > 0 ? static_cast<double>(m_total - std::min(done, m_total)) / rate : -1.0;
    }
    if (final) {
        fraction = fraction < 0 ? -1.0 : 1.0;
        left = -1.0;
    }
    char rest[160];
    if (left >= 0) {
        std::snprintf(rest, sizeof(rest), "%zu %s  %.1f/s  %.0f s left", done, m_unit.c_str(), rate,
                      std::ceil(left));
    } else {
        std::snprintf(rest, sizeof(rest), "%zu %s  %.1f/s", done, m_unit.c_str(), rate);
    }
    if (m_terminal) {
        std::string bar;
        if (fraction >= 0) {
            const int width = 30;
            const int full = static_cast<int>(fraction * width + 0.5);
            bar = "[" + std::string(static_cast<size_t>(full), '#') +
                  std::string(static_cast<size_t>(width - full), ' ') + "] ";
        }
        std::fprintf(m_out, "\r%s %s%s\033[K%s", m_label.c_str(), bar.c_str(), rest,
                     final ? "\n" : "");
    } else {
        std::fprintf(m_out, "%s %s%s\n", m_label.c_str(), rest, final ? " (done)" : "");
    }
    std::fflush(m_out);
}

host::ProgressHandler progressDisplay() {
    auto bar = std::make_shared<std::unique_ptr<Progress>>();
    return [bar](const host::ProgressEvent& e) {
        if (e.phase == host::ProgressEvent::Start) {
            *bar = std::make_unique<Progress>(e.stage, "frames", e.total, e.seconds,
                                              host::stdoutIsTerminal());
        } else if (*bar && e.phase == host::ProgressEvent::Tick) {
            (*bar)->update(e.done);
        } else if (*bar) {
            (*bar)->finish(e.done);
            bar->reset();
        }
    };
}

}  // namespace pfapp
