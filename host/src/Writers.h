// Output files of the host library: one writer per format behind one small interface.
//
//   PlyWriter   the cloud as binary little-endian PLY (PCL I/O): x y z in millimetres, with
//               normal_x normal_y normal_z (and PCL's curvature, 0) when the cloud has normals
//   PngWriter   a shaded depth view of the cloud from above (OpenCV), coloured by the distance
//               to the truth when distances are given, else by height, with a colour scale
//   JsonWriter  a JSON document (nlohmann-json), indented
//   TextWriter  plain lines
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Geometry.h"

namespace host {

class Writer {
public:
    virtual ~Writer() = default;
    // Short name of the format ("ply", "png", ...).
    virtual const char* format() const = 0;
    // Writes the file; false with a one-line `error` when it cannot.
    virtual bool write(const std::string& path, std::string& error) const = 0;
};

class PlyWriter : public Writer {
public:
    explicit PlyWriter(const Cloud& cloud) : m_cloud(cloud) {}
    const char* format() const override { return "ply"; }
    bool write(const std::string& path, std::string& error) const override;

private:
    const Cloud& m_cloud;
};

class PngWriter : public Writer {
public:
    // `distances`: one per point (millimetres), or empty. `scaleMm`: the distance at the top
    // of the colour scale (0: the 99th percentile of the distances).
    PngWriter(const Cloud& cloud, const std::vector<double>& distances, double scaleMm = 0.0,
              int width = 1000)
        : m_cloud(cloud), m_distances(distances), m_scaleMm(scaleMm), m_width(width) {}
    const char* format() const override { return "png"; }
    bool write(const std::string& path, std::string& error) const override;

private:
    const Cloud& m_cloud;
    const std::vector<double>& m_distances;
    double m_scaleMm;
    int m_width;
};

class JsonWriter : public Writer {
public:
    explicit JsonWriter(const nlohmann::json& document) : m_document(document) {}
    const char* format() const override { return "json"; }
    bool write(const std::string& path, std::string& error) const override;

private:
    const nlohmann::json& m_document;
};

class TextWriter : public Writer {
public:
    explicit TextWriter(std::vector<std::string> lines) : m_lines(std::move(lines)) {}
    const char* format() const override { return "text"; }
    bool write(const std::string& path, std::string& error) const override;

private:
    std::vector<std::string> m_lines;
};

}  // namespace host
