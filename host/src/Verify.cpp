// The acceptance test of the whole chain on the simulated artefacts. The console plays the
// artefact scene (a sphere, a ball bar in seven positions, a plane); the session measures the
// transfer matrices, scans one visit of every artefact as a scan does, takes each artefact's
// points by its nominal place, fits sphere and plane and judges the characteristics against
// their limits. Writes verify.json, verify.png and verify.txt.
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>

#include "Metrology.h"
#include "SessionImpl.h"
#include "device/Pathfinder.h"
#include "host/Files.h"

namespace host {

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

struct Limits {
    double pf = 0.25;  // probing error form, mm
    double ps = 0.05;  // probing error size, |fitted - true diameter|, mm
    double sd = 0.08;  // sphere-spacing error, |measured - true distance|, mm
    double f = 0.25;   // flatness, mm
};

// The nominal artefacts as the truth's scene.json lists them.
struct NominalSphere {
    std::string name;
    Eigen::Vector3d centre;
    double diameter = 0;
};
struct NominalBar {
    std::string name;
    size_t a = 0, b = 0;
    double distance = 0;
};
struct NominalPlane {
    Eigen::Vector3d centre, normal, axis;
    double length = 0, width = 0;
};
struct Nominal {
    std::vector<NominalSphere> spheres;
    std::vector<NominalBar> bars;
    std::vector<NominalPlane> planes;
    size_t cycleFrames = 0;
    double sigmaMm = 0;  // expected noise of a point along the surface normal
};

Eigen::Vector3d vec3(const Json& j) {
    return Eigen::Vector3d(j.at(0).get<double>(), j.at(1).get<double>(), j.at(2).get<double>());
}

Nominal readNominal(const std::string& truthDir) {
    std::ifstream in((fs::path(truthDir) / "scene.json").string());
    Nominal n;
    try {
        const Json j = Json::parse(in);
        const Json& a = j.at("artefacts");
        for (const Json& s : a.at("spheres")) {
            n.spheres.push_back({s.at("name").get<std::string>(), vec3(s.at("centre")),
                                 s.at("diameter").get<double>()});
        }
        for (const Json& b : a.at("ballBars")) {
            n.bars.push_back({b.at("name").get<std::string>(), b.at("a").get<size_t>(),
                              b.at("b").get<size_t>(), b.at("distance").get<double>()});
            if (n.bars.back().a >= n.spheres.size() || n.bars.back().b >= n.spheres.size()) {
                throw std::runtime_error("ball bar names a missing sphere");
            }
        }
        for (const Json& p : a.at("planes")) {
            n.planes.push_back({vec3(p.at("centre")), vec3(p.at("normal")).normalized(),
                                vec3(p.at("axis")).normalized(), p.at("length").get<double>(),
                                p.at("width").get<double>()});
        }
        n.cycleFrames = a.at("cycleFrames").get<size_t>();
        // Along the normal a point carries the laser noise of one coordinate and the frame's
        // pose noise (translation, and rotation at the working distance).
        const Json& noise = j.at("noise");
        const double laser = noise.at("laserMm").get<double>();
        const double pose = noise.at("poseMm").get<double>();
        const double distance = j.at("scanner").at("workingDistanceMm").get<double>();
        const double turn = noise.at("poseDeg").get<double>() * M_PI / 180.0 * distance;
        n.sigmaMm = std::sqrt(laser * laser + pose * pose + turn * turn);
    } catch (const std::exception& e) {
        throw Error(kExitInputFile, "the console's truth lists no artefacts (" +
                                        std::string(e.what()) + "); is it the artefact scene?");
    }
    if (n.spheres.empty() || n.bars.empty() || n.planes.empty() || n.cycleFrames == 0) {
        throw Error(kExitInputFile, "the console's truth lists no artefacts");
    }
    return n;
}

void setLimit(Limits& limits, const std::string& name, double value) {
    if (name == "PF") {
        limits.pf = value;
    } else if (name == "PS") {
        limits.ps = value;
    } else if (name == "SD") {
        limits.sd = value;
    } else if (name == "F") {
        limits.f = value;
    } else {
        throw std::runtime_error("unknown characteristic " + name);
    }
}

void readLimitsFile(const std::string& path, Limits& limits) {
    std::ifstream in(path);
    if (!in) {
        throw Error(kExitInputFile, "cannot read the limits file " + path);
    }
    try {
        const Json j = Json::parse(in);
        for (const auto& item : j.items()) {
            const double v = item.value().get<double>();
            if (!(v > 0) || !std::isfinite(v)) {
                throw std::runtime_error("limit " + item.key() + " is not a positive number");
            }
            setLimit(limits, item.key(), v);
        }
    } catch (const std::exception& e) {
        throw Error(kExitInputFile, "limits file " + path + ": " + e.what());
    }
}

// Everything the analysis found.
struct Result {
    SphereFit sphere;
    std::vector<SphereFit> barSpheres;  // two per position
    std::vector<double> sd;             // per position (NaN when not measured)
    PlaneFit plane;
    NominalPlane planeNominal;
    std::vector<Characteristic> characteristics;
    double expectedForm = 0;
    size_t frames = 0, points = 0;
};

// The points within `window` mm of a nominal sphere's surface.
std::vector<Eigen::Vector3d> nearSphere(const Cloud& cloud, const NominalSphere& s, double window) {
    std::vector<Eigen::Vector3d> out;
    for (size_t i = 0; i < cloud.size(); ++i) {
        const Eigen::Vector3d p = pointOf(cloud, i).cast<double>();
        if (std::fabs((p - s.centre).norm() - 0.5 * s.diameter) <= window) {
            out.push_back(p);
        }
    }
    return out;
}

std::vector<Eigen::Vector3d> nearPlane(const Cloud& cloud, const NominalPlane& pl, double window) {
    const Eigen::Vector3d across = pl.normal.cross(pl.axis);
    std::vector<Eigen::Vector3d> out;
    for (size_t i = 0; i < cloud.size(); ++i) {
        const Eigen::Vector3d p = pointOf(cloud, i).cast<double>();
        const Eigen::Vector3d d = p - pl.centre;
        // A margin of 2 mm from the edges keeps the rounded-off rim of the laser's reach out.
        if (std::fabs(pl.normal.dot(d)) <= window &&
            std::fabs(pl.axis.dot(d)) <= 0.5 * pl.length - 2.0 &&
            std::fabs(across.dot(d)) <= 0.5 * pl.width - 2.0) {
            out.push_back(p);
        }
    }
    return out;
}

Result analyse(const Collection& c, const Nominal& n, const Limits& limits) {
    constexpr double kWindow = 2.0;  // mm around the nominal surface
    Result r;
    r.frames = c.frames;
    r.points = c.cloud.size();
    r.expectedForm = expectedRange(n.sigmaMm);
    const double nan = std::numeric_limits<double>::quiet_NaN();

    r.sphere = fitSphere(nearSphere(c.cloud, n.spheres[0], kWindow));
    Characteristic pf{"PF", "probing error form (range of radial distances)", nan, limits.pf,
                      r.sphere.ok};
    Characteristic ps{"PS", "probing error size (fitted - true diameter)", nan, limits.ps,
                      r.sphere.ok};
    if (r.sphere.ok) {
        pf.value = spread(r.sphere.residuals);
        ps.value = 2 * r.sphere.radius - n.spheres[0].diameter;
    }
    Characteristic sd{"SD", "sphere-spacing error (largest |measured - true distance|)", nan,
                      limits.sd, true};
    double worst = 0;
    for (const NominalBar& b : n.bars) {
        SphereFit fa = fitSphere(nearSphere(c.cloud, n.spheres[b.a], kWindow));
        SphereFit fb = fitSphere(nearSphere(c.cloud, n.spheres[b.b], kWindow));
        double e = nan;
        if (fa.ok && fb.ok) {
            e = (fa.centre - fb.centre).norm() - b.distance;
            worst = std::fabs(e) > std::fabs(worst) ? e : worst;
        } else {
            sd.measured = false;
        }
        r.sd.push_back(e);
        r.barSpheres.push_back(std::move(fa));
        r.barSpheres.push_back(std::move(fb));
    }
    sd.value = sd.measured ? worst : nan;
    r.planeNominal = n.planes[0];
    r.plane = fitPlane(nearPlane(c.cloud, n.planes[0], kWindow));
    Characteristic f{"F", "flatness (range of signed distances to the plane)", nan, limits.f,
                     r.plane.ok};
    if (r.plane.ok) {
        f.value = spread(r.plane.residuals);
    }
    r.characteristics = {pf, ps, sd, f};
    return r;
}

bool allPass(const Result& r) {
    return std::all_of(r.characteristics.begin(), r.characteristics.end(),
                       [](const Characteristic& c) { return c.pass(); });
}

Json toJson(const Result& r, const Nominal& n, double seconds) {
    Json j;
    Json chars = Json::array();
    for (const Characteristic& c : r.characteristics) {
        Json x = {{"name", c.name},   {"what", c.what},         {"limit_mm", c.limit},
                  {"pass", c.pass()}, {"measured", c.measured}, {"value_mm", nullptr}};
        if (c.measured && std::isfinite(c.value)) {
            x["value_mm"] = c.value;
        }
        chars.push_back(x);
    }
    j["characteristics"] = chars;
    j["pass"] = allPass(r);
    auto sphereJson = [](const SphereFit& s, const NominalSphere& nom) {
        Json x = {{"name", nom.name},
                  {"points", s.points.size()},
                  {"rejected", s.rejected},
                  {"true_centre", {nom.centre.x(), nom.centre.y(), nom.centre.z()}},
                  {"true_diameter_mm", nom.diameter}};
        if (s.ok) {
            x["centre"] = {s.centre.x(), s.centre.y(), s.centre.z()};
            x["diameter_mm"] = 2 * s.radius;
            x["form_mm"] = spread(s.residuals);
        }
        return x;
    };
    j["sphere"] = sphereJson(r.sphere, n.spheres[0]);
    Json bars = Json::array();
    for (size_t i = 0; i < n.bars.size(); ++i) {
        Json b = {{"position", n.bars[i].name},
                  {"true_distance_mm", n.bars[i].distance},
                  {"sd_mm", nullptr},
                  {"spheres",
                   {sphereJson(r.barSpheres[2 * i], n.spheres[n.bars[i].a]),
                    sphereJson(r.barSpheres[2 * i + 1], n.spheres[n.bars[i].b])}}};
        if (std::isfinite(r.sd[i])) {
            b["sd_mm"] = r.sd[i];
            b["distance_mm"] = n.bars[i].distance + r.sd[i];
        }
        bars.push_back(b);
    }
    j["ball_bar"] = bars;
    j["plane"] = {{"points", r.plane.points.size()},
                  {"rejected", r.plane.rejected},
                  {"length_mm", r.planeNominal.length},
                  {"width_mm", r.planeNominal.width}};
    if (r.plane.ok) {
        j["plane"]["normal"] = {r.plane.normal.x(), r.plane.normal.y(), r.plane.normal.z()};
        j["plane"]["flatness_mm"] = spread(r.plane.residuals);
    }
    j["expected"] = {{"point_sigma_mm", n.sigmaMm},
                     {"form_range_mm", r.expectedForm},
                     {"note", "range of Gaussian residuals after the rejection"}};
    j["reject_fraction"] = kRejectFraction;
    j["frames"] = r.frames;
    j["points"] = r.points;
    j["total_s"] = seconds;
    return j;
}

// ---- picture ---------------------------------------------------------------------------

cv::Scalar ramp(double v) {  // -1 blue, 0 white, +1 red (BGR)
    v = std::clamp(v, -1.0, 1.0);
    const double a = 255 * (1 - std::fabs(v));
    return v < 0 ? cv::Scalar(255, a, a) : cv::Scalar(a, a, 255);
}

void text(cv::Mat& img, const std::string& s, int x, int y, double scale = 0.5) {
    cv::putText(img, s, cv::Point(x, y), cv::FONT_HERSHEY_SIMPLEX, scale, cv::Scalar(0, 0, 0), 1,
                cv::LINE_AA);
}

std::string mm(double v) {
    char b[32];
    std::snprintf(b, sizeof(b), "%.4f mm", v);
    return std::isfinite(v) ? b : "not measured";
}

cv::Mat picture(const Result& r) {
    const int w = 520, h = 520;
    cv::Mat img(h, 3 * w, CV_8UC3, cv::Scalar(255, 255, 255));
    // Sphere residuals seen from above (azimuthal projection of the directions).
    {
        text(img, "sphere: residuals seen from above", 20, 30, 0.6);
        const double scale = std::max(1e-3, 0.5 * spread(r.sphere.residuals));
        const cv::Point2d c(w / 2.0, h / 2.0 + 10);
        const double radius = 200;
        // The ball lit from the upper left, under the points and on them, so that the
        // projection reads as a sphere.
        const Eigen::Vector3d light = Eigen::Vector3d(-1, 1, 1).normalized();
        const auto lit = [&light](const Eigen::Vector3d& d) {
            return 0.45 + 0.55 * std::max(0.0, d.dot(light));
        };
        const auto direction = [](double polar, double az) {
            const double t = polar * M_PI / 2;
            return Eigen::Vector3d(std::sin(t) * std::cos(az), std::sin(t) * std::sin(az),
                                   std::cos(t));
        };
        for (int y = static_cast<int>(c.y - radius); y <= static_cast<int>(c.y + radius); ++y) {
            for (int x = static_cast<int>(c.x - radius); x <= static_cast<int>(c.x + radius); ++x) {
                const double polar = std::hypot(x - c.x, y - c.y) / radius;
                if (polar <= 1.0) {
                    const double g = 255 * lit(direction(polar, std::atan2(c.y - y, x - c.x)));
                    img.at<cv::Vec3b>(y, x) = cv::Vec3b::all(static_cast<uchar>(g));
                }
            }
        }
        cv::circle(img, c, static_cast<int>(radius), cv::Scalar(200, 200, 200), 1);
        for (size_t i = 0; i < r.sphere.points.size(); ++i) {
            const Eigen::Vector3d d = (r.sphere.points[i] - r.sphere.centre).normalized();
            const double polar = std::acos(std::clamp(d.z(), -1.0, 1.0)) / (M_PI / 2);
            const double az = std::atan2(d.y(), d.x());
            const cv::Point2d p(c.x + radius * polar * std::cos(az),
                                c.y - radius * polar * std::sin(az));
            cv::circle(img, p, 1, ramp(r.sphere.residuals[i] / scale) * lit(d), cv::FILLED);
        }
        const Characteristic& pf = r.characteristics[0];
        const Characteristic& ps = r.characteristics[1];
        text(img, "PF " + mm(pf.value) + " (limit " + mm(pf.limit) + ")", 20, h - 50);
        text(img, "PS " + mm(ps.value) + " (limit " + mm(ps.limit) + ")", 20, h - 25);
        char b[64];
        std::snprintf(b, sizeof(b), "colour: -%.3f .. +%.3f mm", scale, scale);
        text(img, b, 20, 55);
    }
    // The seven sphere-spacing errors against the limit.
    {
        const int x0 = w + 40, y0 = 60, bw = w - 80, bh = h - 160;
        text(img, "ball bar: SD per position", w + 20, 30, 0.6);
        const Characteristic& sd = r.characteristics[2];
        double top = sd.limit * 1.3;
        for (double v : r.sd) {
            if (std::isfinite(v)) {
                top = std::max(top, std::fabs(v) * 1.1);
            }
        }
        auto yOf = [&](double v) { return static_cast<int>(y0 + bh / 2.0 - v / top * bh / 2.0); };
        cv::rectangle(img, cv::Point(x0, y0), cv::Point(x0 + bw, y0 + bh),
                      cv::Scalar(120, 120, 120));
        cv::line(img, cv::Point(x0, yOf(0)), cv::Point(x0 + bw, yOf(0)), cv::Scalar(0, 0, 0));
        for (double s : {-1.0, 1.0}) {
            cv::line(img, cv::Point(x0, yOf(s * sd.limit)), cv::Point(x0 + bw, yOf(s * sd.limit)),
                     cv::Scalar(0, 0, 220), 2);
        }
        const int n = static_cast<int>(r.sd.size());
        for (int i = 0; i < n; ++i) {
            const double v = r.sd[static_cast<size_t>(i)];
            const int bx = x0 + (2 * i + 1) * bw / (2 * n + 1);
            const int bwid = bw / (2 * n + 1);
            if (std::isfinite(v)) {
                const bool ok = std::fabs(v) <= sd.limit;
                cv::rectangle(img, cv::Point(bx, yOf(0)), cv::Point(bx + bwid, yOf(v)),
                              ok ? cv::Scalar(60, 170, 60) : cv::Scalar(40, 40, 220), cv::FILLED);
            }
            text(img, std::to_string(i + 1), bx + bwid / 3, y0 + bh + 20);
        }
        char b[96];
        std::snprintf(b, sizeof(b), "axis +-%.3f mm, limit +-%.3f mm (red)", top, sd.limit);
        text(img, b, w + 20, h - 50);
        text(img, "SD " + mm(sd.value), w + 20, h - 25);
    }
    // The plane's residual map, in the plane's own axes.
    {
        const int x0 = 2 * w + 20, bw = w - 40;
        text(img, "plane: residual map", 2 * w + 20, 30, 0.6);
        const NominalPlane& pl = r.planeNominal;
        const double px = bw / pl.length;
        const int bh = static_cast<int>(std::ceil(pl.width * px));
        const int y0 = h / 2 - bh / 2;
        const Eigen::Vector3d across = pl.normal.cross(pl.axis);
        const double scale = std::max(1e-3, 0.5 * spread(r.plane.residuals));
        cv::rectangle(img, cv::Point(x0, y0), cv::Point(x0 + bw, y0 + bh),
                      cv::Scalar(200, 200, 200));
        for (size_t i = 0; i < r.plane.points.size(); ++i) {
            const Eigen::Vector3d d = r.plane.points[i] - pl.centre;
            const cv::Point p(static_cast<int>(x0 + (pl.axis.dot(d) + 0.5 * pl.length) * px),
                              static_cast<int>(y0 + (0.5 * pl.width - across.dot(d)) * px));
            img.at<cv::Vec3b>(std::clamp(p.y, 0, h - 1), std::clamp(p.x, 0, 3 * w - 1)) = [&] {
                const cv::Scalar s = ramp(r.plane.residuals[i] / scale);
                return cv::Vec3b(static_cast<uchar>(s[0]), static_cast<uchar>(s[1]),
                                 static_cast<uchar>(s[2]));
            }();
        }
        const Characteristic& f = r.characteristics[3];
        char b[64];
        std::snprintf(b, sizeof(b), "colour: -%.3f .. +%.3f mm", scale, scale);
        text(img, b, 2 * w + 20, 55);
        text(img, "F " + mm(f.value) + " (limit " + mm(f.limit) + ")", 2 * w + 20, h - 25);
    }
    return img;
}

std::string report(const Result& r, const Nominal& n, double seconds) {
    std::string s = "Acceptance test of the measuring chain on simulated artefacts\n\n";
    char b[256];
    for (const Characteristic& c : r.characteristics) {
        std::snprintf(b, sizeof(b), "%-3s %-60s %12s  limit %9.4f mm  %s\n", c.name.c_str(),
                      c.what.c_str(), mm(c.value).c_str(), c.limit, c.pass() ? "PASS" : "FAIL");
        s += b;
    }
    s += "\nSphere-spacing error per ball-bar position:\n";
    for (size_t i = 0; i < n.bars.size(); ++i) {
        std::snprintf(b, sizeof(b), "  %zu  %-18s %12s\n", i + 1, n.bars[i].name.c_str(),
                      mm(r.sd[i]).c_str());
        s += b;
    }
    std::snprintf(b, sizeof(b),
                  "\nSphere: %zu points, diameter %.4f mm (true %.4f mm). Plane: %zu points.\n"
                  "Rejected: the largest %.1f %% of residuals per fit. Point noise %.4f mm; "
                  "expected form range %.4f mm.\n%zu frames, %zu points, %.1f s.\n",
                  r.sphere.points.size(), 2 * r.sphere.radius, n.spheres[0].diameter,
                  r.plane.points.size(), 100 * kRejectFraction, n.sigmaMm, r.expectedForm, r.frames,
                  r.points, seconds);
    s += b;
    s += std::string("\nVerdict: ") + (allPass(r) ? "PASS" : "FAIL") + "\n";
    return s;
}

}  // namespace

VerifyResult Session::verify(const VerifyRequest& request) {
    const auto t0 = std::chrono::steady_clock::now();
    Impl& session = *m_impl;
    if (!request.outDir.empty()) {
        prepareOutputFolder(request.outDir);
    }
    Limits limits;
    if (!request.limitsFile.empty()) {
        readLimitsFile(request.limitsFile, limits);
    }
    for (const auto& limit : request.limits) {
        if (!(limit.second > 0) || !std::isfinite(limit.second)) {
            throw Error(kExitUsage, "limit " + limit.first + " is not a positive number");
        }
        try {
            setLimit(limits, limit.first, limit.second);
        } catch (const std::runtime_error& e) {
            throw Error(kExitUsage, e.what());
        }
    }
    if (session.isOpen()) {
        throw Error(kExitUsage,
                    "the acceptance test needs a session of its own: its console "
                    "plays the artefact scene");
    }
    std::vector<std::string> scene = {"--scene", "artefacts"};
    if (request.framesPerSphere > 0) {
        scene.insert(scene.end(), {"--artefact-frames", std::to_string(request.framesPerSphere)});
    }
    session.open(scene);
    char line[256];
    std::snprintf(line, sizeof(line), "connected to %s in %.1f s", session.endpoint().c_str(),
                  session.startupSeconds());
    session.say(line);
    const Truth* truth = session.truth(true);
    if (!truth || truth->markers.empty()) {
        throw Error(kExitInputFile, "the console exported no truth with reference markers");
    }
    const Nominal nominal = readNominal(truth->folder);

    device::CPathfinder& dev = session.device();
    check(dev.setWorkingDevice(session.deviceIds()), "choosing the working devices");
    const size_t count = session.setReferenceMarkers(*truth);
    session.say("measuring the transfer matrices against " + std::to_string(count) +
                " reference markers ...");
    check(dev.getTransferMatrix(), "measuring the transfer matrices");
    check(dev.setScanObject(device::SCAN_OBJECT_SURFACE, true), "choosing the scan object");

    // One visit of every artefact: the scene's cycle of frames.
    session.startCollecting();
    check(dev.controlLaserOn(), "switching the laser on");
    VerifyResult out;
    out.stopped = session.waitForFrames(nominal.cycleFrames, 0.0, 5.0, "scanning the artefacts");
    dev.controlLaserOff();
    session.waitForFrames(0, 3.0, 0.3);
    const Collection c = session.stopCollecting();
    if (c.frames == 0) {
        throw Error(kExitNoData, "no frames were delivered");
    }
    session.say("fitting " + std::to_string(c.cloud.size()) + " points of " +
                std::to_string(c.frames) + " frames ...");
    const Result r = analyse(c, nominal, limits);
    const double seconds = secondsSince(t0);

    out.characteristics = r.characteristics;
    out.pass = allPass(r);
    out.sphereSpacing = r.sd;
    out.expectedFormMm = r.expectedForm;
    out.frames = r.frames;
    out.points = r.points;
    out.totalSeconds = seconds;
    out.json = toJson(r, nominal, seconds).dump(2) + "\n";
    out.report = report(r, nominal, seconds);
    if (!request.outDir.empty()) {
        const fs::path dir(request.outDir);
        std::ofstream json((dir / "verify.json").string());
        json << out.json;
        std::ofstream txt((dir / "verify.txt").string());
        txt << out.report;
        json.close();
        txt.close();
        if (!json || !txt || !cv::imwrite((dir / "verify.png").string(), picture(r))) {
            throw Error(kExitOutput, "cannot write the verification files into " + request.outDir);
        }
        for (const char* name : {"verify.json", "verify.png", "verify.txt"}) {
            out.files.push_back((dir / name).string());
        }
    }
    return out;
}

}  // namespace host
