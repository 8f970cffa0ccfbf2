// The host tool's file formats: cascade files (good and damaged), and the PLY, PNG, JSON and
// text writers read back with the libraries a user would open them with.
#include <gtest/gtest.h>
#include <pcl/io/ply_io.h>
#include <pcl/point_types.h>
#include <stdlib.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <opencv2/imgcodecs.hpp>

#include "AppsTestSupport.h"
#include "CascadeFile.h"
#include "Writers.h"

namespace pfapp {
namespace {

namespace fs = std::filesystem;

class HostFiles : public WithFolder {
protected:
    void writeBytes(const std::string& name, const std::string& bytes) const {
        std::ofstream(path(name), std::ios::binary) << bytes;
    }
};

TEST_F(HostFiles, CascadeFilesRoundTripAndDamageIsRefused) {
    std::vector<CascadeEntry> entries(2);
    entries[0].trackerId = "TRK0001";
    entries[1].trackerId = std::string(20, 'T');  // the whole field, no terminating zero
    entries[1].matrix[12] = -1234.5;
    entries[1].matrix[1] = 0.25;
    std::string error;
    ASSERT_TRUE(writeCascadeFile(path("c.bin"), entries, error)) << error;
    EXPECT_EQ(fs::file_size(path("c.bin")), 4u + 2u * 148u);
    std::vector<CascadeEntry> back;
    ASSERT_TRUE(readCascadeFile(path("c.bin"), back, error)) << error;
    ASSERT_EQ(back.size(), 2u);
    EXPECT_EQ(back[0].trackerId, "TRK0001");
    EXPECT_EQ(back[1].trackerId, entries[1].trackerId);
    EXPECT_EQ(back[1].matrix, entries[1].matrix);

    entries[0].trackerId = std::string(21, 'x');
    EXPECT_FALSE(writeCascadeFile(path("long.bin"), entries, error));

    // Damaged files: each gives a line naming the file and keeps the previous entries.
    std::string good;
    {
        std::ifstream in(path("c.bin"), std::ios::binary);
        good.assign(std::istreambuf_iterator<char>(in), {});
    }
    int32_t huge = 1 << 30;
    int32_t negative = -1;
    std::string nan = good;
    const double q = std::nan("");
    std::memcpy(&nan[4 + 20 + 8 * 5], &q, 8);
    std::string binaryId = good;
    binaryId[5] = '\x01';
    const std::vector<std::pair<std::string, std::string>> bad{
        {"empty", ""},
        {"short", good.substr(0, 3)},
        {"truncated", good.substr(0, good.size() - 1)},
        {"longer", good + "x"},
        {"huge", std::string(reinterpret_cast<char*>(&huge), 4) + good.substr(4)},
        {"negative", std::string(reinterpret_cast<char*>(&negative), 4)},
        {"nan", nan},
        {"binaryid", binaryId}};
    for (const auto& b : bad) {
        writeBytes(b.first, b.second);
        error.clear();
        EXPECT_FALSE(readCascadeFile(path(b.first), back, error)) << b.first;
        EXPECT_NE(error.find(path(b.first)), std::string::npos) << b.first << ": " << error;
        EXPECT_EQ(back.size(), 2u) << b.first;
    }
    EXPECT_FALSE(readCascadeFile(path("missing.bin"), back, error));
}

Cloud sampleCloud(bool normals) {
    Cloud c;
    for (int i = 0; i < 40; ++i) {
        for (int j = 0; j < 30; ++j) {
            c.points.emplace_back(i * 2.0f, j * 2.0f, 0.01f * static_cast<float>(i * j));
            if (normals) {
                c.normals.emplace_back(0.0f, 0.0f, 1.0f);
            }
        }
    }
    return c;
}

TEST_F(HostFiles, PlyIsBinaryLittleEndianAndLoadsWithItsNormals) {
    const Cloud cloud = sampleCloud(true);
    std::string error;
    ASSERT_TRUE(PlyWriter(cloud).write(path("n.ply"), error)) << error;
    std::ifstream in(path("n.ply"), std::ios::binary);
    std::string header;
    std::getline(in, header);
    EXPECT_EQ(header, "ply");
    std::getline(in, header);
    EXPECT_EQ(header, "format binary_little_endian 1.0");
    pcl::PointCloud<pcl::PointNormal> back;
    ASSERT_EQ(pcl::io::loadPLYFile(path("n.ply"), back), 0);
    ASSERT_EQ(back.size(), cloud.points.size());
    EXPECT_FLOAT_EQ(back[77].x, cloud.points[77].x());
    EXPECT_FLOAT_EQ(back[77].z, cloud.points[77].z());
    EXPECT_FLOAT_EQ(back[77].normal_z, 1.0f);

    const Cloud plain = sampleCloud(false);
    ASSERT_TRUE(PlyWriter(plain).write(path("p.ply"), error)) << error;
    pcl::PointCloud<pcl::PointXYZ> xyz;
    ASSERT_EQ(pcl::io::loadPLYFile(path("p.ply"), xyz), 0);
    EXPECT_EQ(xyz.size(), plain.points.size());

    EXPECT_FALSE(PlyWriter(Cloud()).write(path("empty.ply"), error));
}

TEST_F(HostFiles, PngShowsThePartColouredByDistanceWithAScale) {
    const Cloud cloud = sampleCloud(true);
    std::vector<double> distances(cloud.points.size(), 0.0);
    for (size_t i = 0; i < distances.size(); i += 2) {
        distances[i] = 0.2;
    }
    std::string error;
    ASSERT_TRUE(PngWriter(cloud, distances, 0.2, 400).write(path("d.png"), error)) << error;
    const cv::Mat image = cv::imread(path("d.png"), cv::IMREAD_COLOR);
    ASSERT_FALSE(image.empty());
    EXPECT_GE(image.cols, 400);
    // The part covers a good share of the picture, in more than one colour.
    const cv::Mat view = image(cv::Rect(0, 0, 400, image.rows));
    int lit = 0;
    std::set<int> colours;
    for (int v = 0; v < view.rows; ++v) {
        for (int u = 0; u < view.cols; ++u) {
            const cv::Vec3b c = view.at<cv::Vec3b>(v, u);
            if (c != cv::Vec3b(32, 32, 32)) {
                ++lit;
                colours.insert((c[0] / 64) * 16 + (c[1] / 64) * 4 + c[2] / 64);
            }
        }
    }
    EXPECT_GT(lit, view.rows * view.cols / 3);
    EXPECT_GE(colours.size(), 2u);
    // Without distances (no truth) the height colours it.
    ASSERT_TRUE(PngWriter(cloud, {}).write(path("h.png"), error)) << error;
    EXPECT_FALSE(cv::imread(path("h.png")).empty());
}

TEST_F(HostFiles, WritersReportAFolderThatCannotBeWritten) {
    const std::string blocked = path("file") + "/inside";  // a file used as a folder
    writeBytes("file", "x");
    const Cloud cloud = sampleCloud(false);
    const nlohmann::json doc{{"frames", 3}};
    std::string error;
    EXPECT_FALSE(PlyWriter(cloud).write(blocked + ".ply", error));
    EXPECT_NE(error.find(blocked), std::string::npos) << error;
    EXPECT_FALSE(PngWriter(cloud, {}).write(blocked + ".png", error));
    EXPECT_FALSE(JsonWriter(doc).write(blocked + ".json", error));
    EXPECT_FALSE(TextWriter({"a"}).write(blocked + ".txt", error));

    ASSERT_TRUE(JsonWriter(doc).write(path("s.json"), error));
    std::ifstream in(path("s.json"));
    EXPECT_EQ(nlohmann::json::parse(in).at("frames"), 3);
}

}  // namespace
}  // namespace pfapp
