#include "Writers.h"

#include <pcl/PCLPointCloud2.h>
#include <pcl/console/print.h>
#include <pcl/conversions.h>
#include <pcl/io/ply_io.h>
#include <pcl/point_cloud.h>
#include <pcl/point_types.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "host/Files.h"

namespace host {

namespace {

// The colour scale of the pictures: low values dark blue, high ones dark red.
constexpr cv::ColormapTypes kColourMap = cv::COLORMAP_TURBO;

// PCL prints its own complaints; the caller gets a line that names the file.
bool openable(const std::string& path, std::string& error) {
    std::ofstream probe(path, std::ios::binary | std::ios::app);
    if (!probe) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

// What makes a top view read as a part: the surface that lies in the shadow of a higher one
// (the light along the pixel diagonal toward the upper left, `light` its direction), and the
// rims of steps. A horizon sweeps from the upper left: each pixel's horizon is the highest
// ray from the pixels toward the light, falling by the light's slope per step.
void shadeSteps(const cv::Mat& depth, const cv::Mat& hit, cv::Mat& shade, float scale,
                const Eigen::Vector3f& light) {
    const float fall = std::sqrt(2.0f) / scale * light.z() / light.head<2>().norm();
    const float noise = 0.5f;  // mm: the surface's own roughness casts no shadow
    const float step = 2.0f;   // mm: a rim is a neighbour this much higher or lower
    cv::Mat horizon(depth.size(), CV_32F, cv::Scalar(-1e30f));
    for (int v = 1; v < depth.rows; ++v) {
        for (int u = 1; u < depth.cols; ++u) {
            const float before =
                hit.at<uint8_t>(v - 1, u - 1) ? depth.at<float>(v - 1, u - 1) : -1e30f;
            const float h = std::max(before, horizon.at<float>(v - 1, u - 1)) - fall;
            horizon.at<float>(v, u) = h;
            if (!hit.at<uint8_t>(v, u)) {
                continue;
            }
            const float z = depth.at<float>(v, u);
            float s = shade.at<float>(v, u);
            if (z < h - noise) {
                s *= 0.5f;
            }
            const float left = hit.at<uint8_t>(v, u - 1) ? depth.at<float>(v, u - 1) : z;
            const float up = hit.at<uint8_t>(v - 1, u) ? depth.at<float>(v - 1, u) : z;
            if (std::abs(left - z) > step || std::abs(up - z) > step) {
                s *= 0.6f;
            }
            shade.at<float>(v, u) = s;
        }
    }
}

}  // namespace

bool PlyWriter::write(const std::string& path, std::string& error) const {
    if (!openable(path, error)) {
        return false;
    }
    int rc = 0;
    if (m_cloud.hasNormals()) {
        pcl::PointCloud<pcl::PointNormal> out;
        out.resize(m_cloud.size());
        for (size_t i = 0; i < m_cloud.size(); ++i) {
            pcl::PointNormal& p = out[i];
            const float* xyz = &m_cloud.points[3 * i];
            const float* n = &m_cloud.normals[3 * i];
            p.x = xyz[0];
            p.y = xyz[1];
            p.z = xyz[2];
            p.normal_x = n[0];
            p.normal_y = n[1];
            p.normal_z = n[2];
            p.curvature = 0.0f;
        }
        rc = out.empty() ? -1 : pcl::io::savePLYFileBinary(path, out);
    } else {
        pcl::PointCloud<pcl::PointXYZ> out;
        out.resize(m_cloud.size());
        for (size_t i = 0; i < m_cloud.size(); ++i) {
            const float* xyz = &m_cloud.points[3 * i];
            out[i] = pcl::PointXYZ(xyz[0], xyz[1], xyz[2]);
        }
        rc = out.empty() ? -1 : pcl::io::savePLYFileBinary(path, out);
    }
    if (rc != 0) {
        error = m_cloud.points.empty() ? "no points to write to " + path
                                       : "cannot write the PLY file " + path;
        return false;
    }
    return true;
}

Cloud readPlyFile(const std::string& path) {
    pcl::PCLPointCloud2 blob;
    bool read = false;
    // PCL's reader names every property of the camera element PCL's own writer adds.
    const pcl::console::VERBOSITY_LEVEL verbosity = pcl::console::getVerbosityLevel();
    pcl::console::setVerbosityLevel(pcl::console::L_ERROR);
    try {
        read = pcl::io::loadPLYFile(path, blob) == 0;
    } catch (const std::exception&) {
        read = false;
    }
    pcl::console::setVerbosityLevel(verbosity);
    if (!read || blob.width * blob.height == 0) {
        throw Error(kExitInputFile, "cannot read the points of " + path);
    }
    bool normals = false;
    for (const pcl::PCLPointField& f : blob.fields) {
        normals = normals || f.name == "normal_x";
    }
    Cloud cloud;
    if (normals) {
        pcl::PointCloud<pcl::PointNormal> in;
        pcl::fromPCLPointCloud2(blob, in);
        for (const pcl::PointNormal& p : in) {
            cloud.points.insert(cloud.points.end(), {p.x, p.y, p.z});
            cloud.normals.insert(cloud.normals.end(), {p.normal_x, p.normal_y, p.normal_z});
        }
    } else {
        pcl::PointCloud<pcl::PointXYZ> in;
        pcl::fromPCLPointCloud2(blob, in);
        for (const pcl::PointXYZ& p : in) {
            cloud.points.insert(cloud.points.end(), {p.x, p.y, p.z});
        }
    }
    return cloud;
}

std::array<uint8_t, 768> colourScale() {
    cv::Mat ramp(256, 1, CV_8U);
    for (int i = 0; i < 256; ++i) {
        ramp.at<uint8_t>(i) = static_cast<uint8_t>(i);
    }
    cv::Mat colours;
    cv::applyColorMap(ramp, colours, kColourMap);
    std::array<uint8_t, 768> rgb{};
    for (int i = 0; i < 256; ++i) {
        const cv::Vec3b c = colours.at<cv::Vec3b>(i);  // OpenCV keeps b, g, r
        rgb[3 * i] = c[2];
        rgb[3 * i + 1] = c[1];
        rgb[3 * i + 2] = c[0];
    }
    return rgb;
}

bool PngWriter::write(const std::string& path, std::string& error) const {
    if (!openable(path, error)) {
        return false;
    }
    const int bar = 110;  // room for the colour scale on the right
    const int width = std::max(200, m_width);
    cv::Mat image(200, width + bar, CV_8UC3, cv::Scalar(32, 32, 32));
    const bool byDistance = !m_distances.empty() && m_distances.size() == m_cloud.size();

    double lo = 0.0;
    double hi = 1.0;
    if (!m_cloud.points.empty()) {
        Eigen::Vector3f mn = pointOf(m_cloud, 0);
        Eigen::Vector3f mx = mn;
        for (size_t i = 0; i < m_cloud.size(); ++i) {
            mn = mn.cwiseMin(pointOf(m_cloud, i));
            mx = mx.cwiseMax(pointOf(m_cloud, i));
        }
        const float spanX = std::max(1e-3f, mx.x() - mn.x());
        const float spanY = std::max(1e-3f, mx.y() - mn.y());
        const float margin = 20.0f;
        const float scale = (static_cast<float>(width) - 2 * margin) / spanX;
        const int height =
            std::max(200, std::min(4000, static_cast<int>(spanY * scale + 2 * margin)));
        image = cv::Mat(height, width + bar, CV_8UC3, cv::Scalar(32, 32, 32));

        // The value that colours a point: its distance to the truth, or its height.
        std::vector<double> values;
        values.reserve(m_cloud.size());
        for (size_t i = 0; i < m_cloud.size(); ++i) {
            values.push_back(byDistance ? std::abs(m_distances[i]) : pointOf(m_cloud, i).z());
        }
        if (byDistance) {
            lo = 0.0;
            hi = m_scaleMm;
            if (!(hi > 0.0)) {
                std::vector<double> sorted = values;
                const size_t k = sorted.size() * 99 / 100;
                std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(k),
                                 sorted.end());
                hi = std::max(1e-3, sorted[k]);
            }
        } else {
            lo = mn.z();
            hi = std::max(lo + 1e-3, static_cast<double>(mx.z()));
        }

        // Top view with a depth buffer: the highest point of each pixel wins. Each point is
        // drawn as a square about as wide as the mean spacing of the points, so that a scan
        // reads as a surface and not as separate laser lines.
        const double spacing =
            std::sqrt(static_cast<double>(spanX) * spanY / static_cast<double>(m_cloud.size()));
        const int splat =
            std::max(0, std::min(8, static_cast<int>(std::ceil(0.5 * spacing * scale)) - 0));
        cv::Mat depth(height, width, CV_32F, cv::Scalar(-1e30f));
        cv::Mat level(height, width, CV_8U, cv::Scalar(0));
        cv::Mat shade(height, width, CV_32F, cv::Scalar(0.0f));
        cv::Mat hit(height, width, CV_8U, cv::Scalar(0));
        // The light comes from the picture's upper left (-x, +y), 35 degrees above the part.
        const Eigen::Vector3f light = Eigen::Vector3f(-1.0f, 1.0f, 1.0f).normalized();
        for (size_t i = 0; i < m_cloud.size(); ++i) {
            const Eigen::Vector3f p = pointOf(m_cloud, i);
            const int u0 = static_cast<int>(margin + (p.x() - mn.x()) * scale);
            const int v0 = static_cast<int>(height - 1 - (margin + (p.y() - mn.y()) * scale));
            float s = 1.0f;
            if (m_cloud.hasNormals()) {
                Eigen::Vector3f n(&m_cloud.normals[3 * i]);
                if (n.z() < 0) {
                    n = -n;  // seen from above
                }
                s = 0.25f + 0.75f * std::max(0.0f, n.dot(light));
            }
            for (int v = std::max(0, v0 - splat); v <= std::min(height - 1, v0 + splat); ++v) {
                for (int u = std::max(0, u0 - splat); u <= std::min(width - 1, u0 + splat); ++u) {
                    if (p.z() <= depth.at<float>(v, u)) {
                        continue;
                    }
                    depth.at<float>(v, u) = p.z();
                    hit.at<uint8_t>(v, u) = 1;
                    shade.at<float>(v, u) = s;
                }
            }
        }
        // The colour of a pixel is the mean value of the points of its top surface (within
        // 1 mm of the highest): the highest point alone would pick the largest noise.
        cv::Mat sum(height, width, CV_64F, cv::Scalar(0.0));
        cv::Mat count(height, width, CV_32S, cv::Scalar(0));
        for (size_t i = 0; i < m_cloud.size(); ++i) {
            const Eigen::Vector3f p = pointOf(m_cloud, i);
            const int u = static_cast<int>(margin + (p.x() - mn.x()) * scale);
            const int v = static_cast<int>(height - 1 - (margin + (p.y() - mn.y()) * scale));
            if (u < 0 || v < 0 || u >= width || v >= height ||
                p.z() < depth.at<float>(v, u) - 1.0f) {
                continue;
            }
            sum.at<double>(v, u) += values[i];
            count.at<int32_t>(v, u) += 1;
        }
        for (int v = 0; v < height; ++v) {
            for (int u = 0; u < width; ++u) {
                if (!hit.at<uint8_t>(v, u)) {
                    continue;
                }
                // A pixel no point fell into directly takes its nearest filled neighbour.
                double value = 0.0;
                int n = 0;
                for (int r = 0; r <= splat && n == 0; ++r) {
                    for (int dv = -r; dv <= r; ++dv) {
                        for (int du = -r; du <= r; ++du) {
                            const int vv = v + dv;
                            const int uu = u + du;
                            if (vv >= 0 && uu >= 0 && vv < height && uu < width &&
                                count.at<int32_t>(vv, uu) > 0) {
                                value += sum.at<double>(vv, uu);
                                n += count.at<int32_t>(vv, uu);
                            }
                        }
                    }
                }
                const double t =
                    n == 0 ? 0.0 : std::max(0.0, std::min(1.0, (value / n - lo) / (hi - lo)));
                level.at<uint8_t>(v, u) = static_cast<uint8_t>(std::lround(t * 255.0));
            }
        }
        // Without normals, shade by the slope of the depth buffer.
        if (!m_cloud.hasNormals()) {
            for (int v = 1; v < height; ++v) {
                for (int u = 1; u < width; ++u) {
                    if (!hit.at<uint8_t>(v, u)) {
                        continue;
                    }
                    float s = 1.0f;
                    if (hit.at<uint8_t>(v, u - 1) && hit.at<uint8_t>(v - 1, u)) {
                        const float dx =
                            (depth.at<float>(v, u) - depth.at<float>(v, u - 1)) * scale;
                        const float dy =
                            (depth.at<float>(v, u) - depth.at<float>(v - 1, u)) * scale;
                        const Eigen::Vector3f n = Eigen::Vector3f(-dx, dy, 1.0f).normalized();
                        s = 0.25f + 0.75f * std::max(0.0f, n.dot(light));
                    }
                    shade.at<float>(v, u) = s;
                }
            }
        }
        shadeSteps(depth, hit, shade, scale, light);
        cv::Mat colours;
        cv::applyColorMap(level, colours, kColourMap);
        cv::Mat view = image(cv::Rect(0, 0, width, height));
        for (int v = 0; v < height; ++v) {
            for (int u = 0; u < width; ++u) {
                if (!hit.at<uint8_t>(v, u)) {
                    continue;
                }
                const cv::Vec3b c = colours.at<cv::Vec3b>(v, u);
                const float s = shade.at<float>(v, u);
                view.at<cv::Vec3b>(v, u) = cv::Vec3b(cv::saturate_cast<uint8_t>(c[0] * s),
                                                     cv::saturate_cast<uint8_t>(c[1] * s),
                                                     cv::saturate_cast<uint8_t>(c[2] * s));
            }
        }
        // 100 mm ruler at the bottom left.
        const int ruler = static_cast<int>(100.0f * scale);
        if (ruler > 10 && ruler < width - 40) {
            cv::line(image, cv::Point(10, height - 10), cv::Point(10 + ruler, height - 10),
                     cv::Scalar(255, 255, 255), 2);
            cv::putText(image, "100 mm", cv::Point(14, height - 16), cv::FONT_HERSHEY_SIMPLEX, 0.45,
                        cv::Scalar(255, 255, 255), 1, cv::LINE_AA);
        }
    }

    // Colour scale.
    const int top = 40;
    const int bottom = image.rows - 40;
    if (bottom - top > 20) {
        cv::Mat ramp(bottom - top, 1, CV_8U);
        for (int r = 0; r < ramp.rows; ++r) {
            ramp.at<uint8_t>(r) = static_cast<uint8_t>(255 - r * 255 / std::max(1, ramp.rows - 1));
        }
        cv::Mat rampColours;
        cv::applyColorMap(ramp, rampColours, kColourMap);
        const int x0 = width + 15;
        for (int r = 0; r < ramp.rows; ++r) {
            cv::line(image, cv::Point(x0, top + r), cv::Point(x0 + 20, top + r),
                     rampColours.at<cv::Vec3b>(r), 1);
        }
        char text[64];
        const cv::Scalar white(255, 255, 255);
        std::snprintf(text, sizeof(text), "%.3g mm", hi);
        cv::putText(image, text, cv::Point(x0 + 24, top + 10), cv::FONT_HERSHEY_SIMPLEX, 0.4, white,
                    1, cv::LINE_AA);
        std::snprintf(text, sizeof(text), "%.3g mm", lo);
        cv::putText(image, text, cv::Point(x0 + 24, bottom), cv::FONT_HERSHEY_SIMPLEX, 0.4, white,
                    1, cv::LINE_AA);
        cv::putText(image, byDistance ? "to truth" : "height", cv::Point(width + 8, top - 14),
                    cv::FONT_HERSHEY_SIMPLEX, 0.45, white, 1, cv::LINE_AA);
    }
    bool ok = false;
    try {
        ok = cv::imwrite(path, image);
    } catch (const cv::Exception& e) {
        error = "cannot write " + path + ": " + e.what();
        return false;
    }
    if (!ok) {
        error = "cannot write " + path;
    }
    return ok;
}

bool JsonWriter::write(const std::string& path, std::string& error) const {
    std::ofstream out(path, std::ios::trunc);
    if (!out) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    out << m_document.dump(2) << '\n';
    out.flush();
    if (!out) {
        error = "cannot write " + path;
        return false;
    }
    return true;
}

bool TextWriter::write(const std::string& path, std::string& error) const {
    std::ofstream out(path, std::ios::trunc);
    if (!out) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    for (const std::string& line : m_lines) {
        out << line << '\n';
    }
    out.flush();
    if (!out) {
        error = "cannot write " + path;
        return false;
    }
    return true;
}

}  // namespace host
