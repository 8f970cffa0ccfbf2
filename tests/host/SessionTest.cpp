// The session in process against a console it starts: every delivered frame reaches the
// listeners with its pose, a listener that throws is counted and harms nothing, a bounded queue
// drops the oldest frames, a stop request ends the scan with what it has, and a frame's points
// placed by its pose lie on the true part.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>

#include "Geometry.h"
#include "host/Session.h"
#include "platform/Platform.h"

namespace host {
namespace {

TEST(HostSession, ListenersGetEveryFrameAndAStopEndsTheScanWithWhatItHas) {
    // The stack's waits run ten times faster here and in the console, as in the tool's tests.
    setenv("PATHFINDER_TIME_SCALE", "0.1", 1);
    platform::setTimeScale(0.1);
    FrameQueue queue(8);  // outlives the session, whose module thread pushes into it
    Session session;
    ASSERT_TRUE(session.hasTruth());
    std::atomic<size_t> calls{0};
    session.addFrameListener([&](const auto& frame, const Pose& pose) { queue.push(frame, pose); });
    const int failing = session.addFrameListener([&](const auto&, const Pose&) {
        if (++calls == 40) {
            session.requestStop();
        }
        throw std::runtime_error("a listener that fails");
    });
    const ScanResult r = session.scan(ScanRequest{});
    session.removeFrameListener(failing);
    EXPECT_TRUE(r.stopped);
    EXPECT_GE(r.frames, 40u);
    EXPECT_LT(r.frames, 200u);
    EXPECT_EQ(session.listenerFailures(), calls.load());
    EXPECT_EQ(queue.size(), 8u);
    EXPECT_EQ(queue.dropped(), calls.load() - 8);

    // The newest frame's laser points, placed by its pose, lie on the true part.
    FrameQueue::Item item;
    while (queue.size() > 0) {
        ASSERT_TRUE(queue.pop(item, 0.0));
    }
    Cloud placed;
    appendFrame(placed, item.pose, item.frame->laserPoints, {});
    ASSERT_GT(placed.size(), 100u);
    std::vector<float> distances(placed.size());
    ASSERT_TRUE(session.truthDistances(placed.points.data(), placed.size(), distances.data()));
    EXPECT_LT(distanceStats({distances.begin(), distances.end()}).rms, 3 * r.noiseSigmaMm);

    // Live frames without a scan, until they are switched off; a closed queue wakes its reader.
    session.startFrames();
    EXPECT_TRUE(queue.pop(item, 5.0));
    session.stopFrames();
    queue.close();  // the reader gets what is left, then returns at once (not after 600 s)
    while (queue.pop(item, 600.0)) {
    }
}

}  // namespace
}  // namespace host
