// The host library's files: cascade files (good and damaged), and the PLY, PNG, JSON and text
// writers read back with the libraries a user would open them with.
#include <gtest/gtest.h>
#include <pcl/io/ply_io.h>
#include <pcl/point_types.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <set>

#include "HostTestSupport.h"
#include "Writers.h"
#include "host/Files.h"

namespace host {
namespace {

class HostFiles : public WithFolder {};

TEST_F(HostFiles, CascadeFilesRoundTripAndDamageIsRefusedWithTheFilesName) {
    std::vector<TransferMatrix> entries(2);
    entries[0].trackerId = "TRK0001";
    entries[1].trackerId = std::string(20, 'T');  // the whole field, no terminating zero
    entries[1].matrix[12] = -1234.5;
    entries[1].matrix[1] = 0.25;
    writeCascadeFile(path("c.bin"), entries);
    EXPECT_EQ(std::filesystem::file_size(path("c.bin")), 4u + 2u * 148u);
    const std::vector<TransferMatrix> back = readCascadeFile(path("c.bin"));
    ASSERT_EQ(back.size(), 2u);
    EXPECT_EQ(back[0].trackerId, "TRK0001");
    EXPECT_EQ(back[1].trackerId, entries[1].trackerId);
    EXPECT_EQ(back[1].matrix, entries[1].matrix);
    EXPECT_FALSE(checkTransferMatrix(back[1]).rigid);  // 0.25 off the diagonal
    EXPECT_TRUE(checkTransferMatrix(back[0]).rigid);
    entries[0].trackerId = std::string(21, 'x');
    EXPECT_THROW(writeCascadeFile(path("long.bin"), entries), Error);

    std::ifstream in(path("c.bin"), std::ios::binary);
    const std::string good((std::istreambuf_iterator<char>(in)), {});
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
        std::ofstream(path(b.first), std::ios::binary) << b.second;
        try {
            readCascadeFile(path(b.first));
            ADD_FAILURE() << b.first << " was read";
        } catch (const Error& e) {
            EXPECT_EQ(e.code(), kExitInputFile) << b.first;
            EXPECT_NE(std::string(e.what()).find(path(b.first)), std::string::npos) << e.what();
        }
    }
}

Cloud sampleCloud(bool normals) {
    Cloud c;
    for (int i = 0; i < 40; ++i) {
        for (int j = 0; j < 30; ++j) {
            c.points.insert(c.points.end(),
                            {i * 2.0f, j * 2.0f, 0.01f * static_cast<float>(i * j)});
            if (normals) {
                c.normals.insert(c.normals.end(), {0.0f, 0.0f, 1.0f});
            }
        }
    }
    return c;
}

TEST_F(HostFiles, WritersWriteBinaryPlyWithNormalsAndRefuseAFolderThatIsAFile) {
    const Cloud cloud = sampleCloud(true);
    std::string error;
    ASSERT_TRUE(PlyWriter(cloud).write(path("n.ply"), error)) << error;
    std::ifstream in(path("n.ply"), std::ios::binary);
    std::string header(36, ' ');
    in.read(&header[0], 36);
    EXPECT_EQ(header, "ply\nformat binary_little_endian 1.0\n");
    pcl::PointCloud<pcl::PointNormal> back;
    ASSERT_EQ(pcl::io::loadPLYFile(path("n.ply"), back), 0);
    ASSERT_EQ(back.size(), cloud.size());
    EXPECT_FLOAT_EQ(back[77].x, cloud.points[3 * 77]);
    EXPECT_FLOAT_EQ(back[77].z, cloud.points[3 * 77 + 2]);
    EXPECT_FLOAT_EQ(back[77].normal_z, 1.0f);

    ASSERT_TRUE(PlyWriter(sampleCloud(false)).write(path("p.ply"), error)) << error;
    pcl::PointCloud<pcl::PointXYZ> xyz;
    ASSERT_EQ(pcl::io::loadPLYFile(path("p.ply"), xyz), 0);
    EXPECT_EQ(xyz.size(), cloud.size());
    EXPECT_FALSE(PlyWriter(Cloud()).write(path("empty.ply"), error));
    // A folder that cannot be written: each writer says so with the file's name.
    std::ofstream(path("file")) << "x";
    const std::string blocked = path("file") + "/inside";
    EXPECT_FALSE(PlyWriter(cloud).write(blocked, error));
    EXPECT_NE(error.find(blocked), std::string::npos) << error;
    EXPECT_FALSE(PngWriter(cloud, {}).write(blocked, error));
    EXPECT_FALSE(JsonWriter(nlohmann::json::object()).write(blocked, error));
    EXPECT_FALSE(TextWriter({"a"}).write(blocked, error));
    EXPECT_THROW(prepareOutputFolder(blocked), Error);
}

TEST_F(HostFiles, PngShowsThePartColouredByDistanceWithAScale) {
    const Cloud cloud = sampleCloud(true);
    std::vector<double> distances(cloud.size(), 0.0);
    for (size_t i = 0; i < distances.size(); i += 2) {
        distances[i] = 0.2;
    }
    std::string error;
    ASSERT_TRUE(PngWriter(cloud, distances, 0.2, 400).write(path("d.png"), error)) << error;
    const cv::Mat image = cv::imread(path("d.png"), cv::IMREAD_COLOR);
    ASSERT_GE(image.cols, 400);
    // The part covers a good share of the picture, in more than one colour.
    const cv::Mat view = image(cv::Rect(0, 0, 400, image.rows));
    int lit = 0;
    std::set<int> colours;
    for (auto c = view.begin<cv::Vec3b>(); c != view.end<cv::Vec3b>(); ++c) {
        if (*c != cv::Vec3b(32, 32, 32)) {
            ++lit;
            colours.insert(((*c)[0] / 64) * 16 + ((*c)[1] / 64) * 4 + (*c)[2] / 64);
        }
    }
    EXPECT_GT(lit, view.rows * view.cols / 3);
    EXPECT_GE(colours.size(), 2u);
    // Without distances (no truth) the height colours it; without normals the depth shades it.
    ASSERT_TRUE(PngWriter(sampleCloud(false), {}).write(path("h.png"), error)) << error;
    EXPECT_FALSE(cv::imread(path("h.png")).empty());
}

}  // namespace
}  // namespace host
