// Expected wire schema, transcribed field by field from the SDK's message tables. The
// descriptor tests compare the compiled schema against this table, so a wrong number, type
// or label in lumora.proto shows up as a failing row.
#pragma once

namespace schema_table {

struct FieldRow {
    const char* message;
    const char* field;
    int number;
    const char* type;  // scalar type name or the name of a lumora message or enum
    bool repeated;
};

struct EnumValueRow {
    const char* enumeration;
    const char* value;
    int number;
};

// Every field of every message, messages in the order of the schema file.
inline constexpr FieldRow kFields[] = {
    // PointInfo2D
    {"PointInfo2D", "X", 1, "double", false},
    {"PointInfo2D", "Y", 2, "double", false},

    // PointInfo2DF
    {"PointInfo2DF", "X", 1, "float", false},
    {"PointInfo2DF", "Y", 2, "float", false},

    // PointInfo
    {"PointInfo", "X", 1, "double", false},
    {"PointInfo", "Y", 2, "double", false},
    {"PointInfo", "Z", 3, "double", false},

    // PointInfo3DF
    {"PointInfo3DF", "X", 1, "float", false},
    {"PointInfo3DF", "Y", 2, "float", false},
    {"PointInfo3DF", "Z", 3, "float", false},

    // PointVecInfo
    {"PointVecInfo", "Points", 1, "PointInfo", false},
    {"PointVecInfo", "PointsVec", 2, "PointInfo", false},

    // DouleData
    {"DouleData", "Data", 1, "double", true},

    // DouleDatas
    {"DouleDatas", "Data", 1, "DouleData", true},

    // TproInfo
    {"TproInfo", "tpro_version", 1, "string", false},

    // DeviceInfo
    {"DeviceInfo", "ID", 1, "bytes", false},
    {"DeviceInfo", "DType", 2, "DeviceType", false},
    {"DeviceInfo", "LZExposure", 3, "double", false},
    {"DeviceInfo", "CurLight", 4, "LightType", false},
    {"DeviceInfo", "mixedtype", 5, "ScannerMixedType", false},
    {"DeviceInfo", "errCodes", 7, "LUMORA_STATE", true},
    {"DeviceInfo", "fireware_version", 8, "string", false},
    {"DeviceInfo", "view_points", 9, "PointInfo", true},
    {"DeviceInfo", "ScanPeriod", 10, "int32", false},
    {"DeviceInfo", "SPPort", 11, "string", false},
    {"DeviceInfo", "CamSN", 12, "string", true},
    {"DeviceInfo", "ORICamSN", 13, "string", true},
    {"DeviceInfo", "deviceIP", 14, "string", false},
    {"DeviceInfo", "TrackerType", 15, "int32", false},

    // ImageInfo
    {"ImageInfo", "deviceID", 1, "string", false},
    {"ImageInfo", "cameraIndex", 2, "int32", false},
    {"ImageInfo", "width", 3, "int32", false},
    {"ImageInfo", "height", 4, "int32", false},
    {"ImageInfo", "data", 5, "bytes", false},
    {"ImageInfo", "isColor", 6, "bool", false},
    {"ImageInfo", "temp", 7, "float", false},
    {"ImageInfo", "deviceTemp", 8, "float", false},

    // ImageInfos
    {"ImageInfos", "images", 1, "ImageInfo", true},
    {"ImageInfos", "frameindex", 2, "int32", false},

    // SetOneParamF
    {"SetOneParamF", "LightT", 1, "LightType", false},
    {"SetOneParamF", "Value", 2, "float", false},

    // WorkRespons
    {"WorkRespons", "ID", 1, "int32", false},
    {"WorkRespons", "Code", 2, "LUMORA_STATE", false},
    {"WorkRespons", "strDeviceID", 3, "string", false},

    // TempInfo
    {"TempInfo", "ID", 1, "bytes", false},
    {"TempInfo", "DType", 2, "DeviceType", false},
    {"TempInfo", "temp", 3, "float", true},

    // FrameRateInfo
    {"FrameRateInfo", "ID", 1, "bytes", false},
    {"FrameRateInfo", "DType", 2, "DeviceType", false},
    {"FrameRateInfo", "framerate", 3, "int32", true},

    // HeartData
    {"HeartData", "data", 1, "TempInfo", true},
    {"HeartData", "dataFramerate", 2, "FrameRateInfo", true},

    // SplitMode1Data
    {"SplitMode1Data", "scannerhead", 1, "bytes", true},
    {"SplitMode1Data", "TimeStamp", 2, "int64", false},
    {"SplitMode1Data", "ID", 3, "bytes", true},
    {"SplitMode1Data", "LZStartIndex", 4, "int32", false},
    {"SplitMode1Data", "trackerRT", 5, "double", true},
    {"SplitMode1Data", "trackerTELP", 6, "bytes", true},

    // FileInfo
    {"FileInfo", "filename", 1, "string", false},
    {"FileInfo", "filedata", 2, "bytes", false},

    // FileInfos
    {"FileInfos", "f", 1, "FileInfo", true},

    // LZCoor
    {"LZCoor", "x", 1, "bytes", false},
    {"LZCoor", "y", 2, "bytes", false},
    {"LZCoor", "z", 3, "bytes", false},

    // MKPointSolve
    {"MKPointSolve", "mkpointcode", 1, "int32", false},
    {"MKPointSolve", "mkimageLeft", 2, "PointInfo2D", false},
    {"MKPointSolve", "mkimageRight", 3, "PointInfo2D", false},
    {"MKPointSolve", "rtcode", 4, "int32", false},

    // MKPointSolveRT
    {"MKPointSolveRT", "rt", 1, "double", true},

    // MKPoint
    {"MKPoint", "Points", 1, "PointVecInfo", false},
    {"MKPoint", "mkpointcode", 2, "int32", false},
    {"MKPoint", "mkpointradius", 3, "float", false},
    {"MKPoint", "mkpointflag", 4, "int32", false},

    // MKPoints
    {"MKPoints", "mkpoint", 1, "MKPoint", true},
    {"MKPoints", "mksolve", 2, "MKPointSolve", true},
    {"MKPoints", "mksolvert", 3, "MKPointSolveRT", true},

    // MKPointImage
    {"MKPointImage", "mksolve", 1, "MKPointSolve", true},
    {"MKPointImage", "left_rt", 2, "double", true},
    {"MKPointImage", "right_rt", 3, "double", true},
    {"MKPointImage", "left_im", 4, "double", true},
    {"MKPointImage", "right_im", 5, "double", true},

    // CamParam
    {"CamParam", "I_M_L", 1, "double", true},
    {"CamParam", "D_CFF_L", 2, "double", true},
    {"CamParam", "I_M_R", 3, "double", true},
    {"CamParam", "D_CFF_R", 4, "double", true},
    {"CamParam", "R_M", 5, "double", true},
    {"CamParam", "T_V", 6, "double", true},
    {"CamParam", "R_M_RC", 7, "double", true},
    {"CamParam", "T_V_RC", 8, "double", true},
    {"CamParam", "R_M_LC", 9, "double", true},
    {"CamParam", "T_V_LC", 10, "double", true},
    {"CamParam", "E", 11, "double", true},
    {"CamParam", "F", 12, "double", true},

    // HoleEllipse
    {"HoleEllipse", "center", 1, "float", true},
    {"HoleEllipse", "width", 2, "float", false},
    {"HoleEllipse", "height", 3, "float", false},
    {"HoleEllipse", "angle", 4, "float", false},

    // HoleInfo
    {"HoleInfo", "holePoint", 1, "PointVecInfo", false},
    {"HoleInfo", "holeRadius", 2, "float", false},
    {"HoleInfo", "holeRoundPoint", 3, "PointInfo", true},
    {"HoleInfo", "leftCEdgeP", 4, "PointInfo2DF", true},
    {"HoleInfo", "rightCEdgeP", 5, "PointInfo2DF", true},
    {"HoleInfo", "leftCEdgeGray", 6, "bytes", false},
    {"HoleInfo", "rightCEdgeGray", 7, "bytes", false},
    {"HoleInfo", "leftEllipse", 8, "HoleEllipse", false},
    {"HoleInfo", "rightEllipse", 9, "HoleEllipse", false},
    {"HoleInfo", "holeFitInfo", 10, "float", true},
    {"HoleInfo", "cameraCount", 11, "int32", false},

    // ScanRealTimeData
    {"ScanRealTimeData", "viewRT", 1, "double", true},
    {"ScanRealTimeData", "objectdist", 2, "float", false},
    {"ScanRealTimeData", "lzpointbase", 3, "double", true},
    {"ScanRealTimeData", "lzpoint", 4, "int32", true},
    {"ScanRealTimeData", "lzdata", 5, "LZCoor", true},
    {"ScanRealTimeData", "frameindex", 6, "int32", false},
    {"ScanRealTimeData", "lzBrightLevel", 7, "int32", false},
    {"ScanRealTimeData", "mkpoint", 8, "MKPoint", true},
    {"ScanRealTimeData", "hole", 9, "HoleInfo", true},
    {"ScanRealTimeData", "scannerP", 10, "CamParam", false},
    {"ScanRealTimeData", "lzt", 11, "LaserType", false},
    {"ScanRealTimeData", "lzsegment", 12, "int32", true},
    {"ScanRealTimeData", "lzPointCountpersegment", 13, "int32", true},
    {"ScanRealTimeData", "cameraFrameRate", 14, "int32", true},
    {"ScanRealTimeData", "mkimage", 15, "MKPointImage", false},

    // ButtonData
    {"ButtonData", "type", 1, "ButtonActType", false},
    {"ButtonData", "num", 2, "int32", false},

    // ScanModeSet
    {"ScanModeSet", "BlackOject", 1, "int32", false},
    {"ScanModeSet", "HighLight", 2, "int32", false},
    {"ScanModeSet", "DeepHole", 3, "int32", false},

    // TrackRange
    {"TrackRange", "rangelevel", 1, "int32", true},
    {"TrackRange", "view_points", 2, "PointInfo", true},

    // LPClbData
    {"LPClbData", "curRT", 1, "double", true},
    {"LPClbData", "dstRT", 2, "double", true},
    {"LPClbData", "allPosCount", 3, "int32", false},
    {"LPClbData", "curPos", 4, "int32", false},
    {"LPClbData", "curFrameIndex", 5, "int32", false},

    // ScanRealTimeDataTest
    {"ScanRealTimeDataTest", "viewRT", 1, "double", true},
    {"ScanRealTimeDataTest", "view_points", 2, "PointInfo", true},

    // EyesInfo
    {"EyesInfo", "rt1", 1, "double", true},
    {"EyesInfo", "rt2", 2, "double", true},
    {"EyesInfo", "temps", 3, "double", true},
    {"EyesInfo", "err", 4, "double", false},
    {"EyesInfo", "iml", 5, "double", true},
    {"EyesInfo", "imr", 6, "double", true},

    // LPCalibInfo
    {"LPCalibInfo", "headtype", 1, "LPHeadType", false},
    {"LPCalibInfo", "ballradius", 2, "double", false},

    // LPDeviceInfos
    {"LPDeviceInfos", "LPDeviceSNs", 1, "string", true},

    // LPDeviceInfo
    {"LPDeviceInfo", "LPDeviceSN", 1, "string", false},

    // NEW_ELLIPSE_SHAPE_INFO
    {"NEW_ELLIPSE_SHAPE_INFO", "center_x", 1, "float", false},
    {"NEW_ELLIPSE_SHAPE_INFO", "center_y", 2, "float", false},
    {"NEW_ELLIPSE_SHAPE_INFO", "a", 3, "float", false},
    {"NEW_ELLIPSE_SHAPE_INFO", "b", 4, "float", false},
    {"NEW_ELLIPSE_SHAPE_INFO", "theta", 5, "float", false},

    // NEW_HOLE_SPACE_CIRCLE
    {"NEW_HOLE_SPACE_CIRCLE", "circle_center", 1, "PointInfo", false},
    {"NEW_HOLE_SPACE_CIRCLE", "circle_vector", 2, "PointInfo", false},
    {"NEW_HOLE_SPACE_CIRCLE", "radius", 3, "float", false},
    {"NEW_HOLE_SPACE_CIRCLE", "circle_edge_point", 4, "PointInfo", true},
    {"NEW_HOLE_SPACE_CIRCLE", "num_l", 5, "int32", false},
    {"NEW_HOLE_SPACE_CIRCLE", "num_r", 6, "int32", false},
    {"NEW_HOLE_SPACE_CIRCLE", "subpix_l", 7, "PointInfo2DF", true},
    {"NEW_HOLE_SPACE_CIRCLE", "subpix_r", 8, "PointInfo2DF", true},
    {"NEW_HOLE_SPACE_CIRCLE", "subpix_gray_l", 9, "bytes", false},
    {"NEW_HOLE_SPACE_CIRCLE", "subpix_gray_r", 10, "bytes", false},
    {"NEW_HOLE_SPACE_CIRCLE", "ellipse_l", 11, "NEW_ELLIPSE_SHAPE_INFO", false},
    {"NEW_HOLE_SPACE_CIRCLE", "ellipse_r", 12, "NEW_ELLIPSE_SHAPE_INFO", false},
    {"NEW_HOLE_SPACE_CIRCLE", "statistics", 13, "float", true},
    {"NEW_HOLE_SPACE_CIRCLE", "hole_flag", 14, "NEW_HOLE_FLAG", false},
    {"NEW_HOLE_SPACE_CIRCLE", "major_dir", 15, "PointInfo", false},
    {"NEW_HOLE_SPACE_CIRCLE", "width", 16, "float", false},
    {"NEW_HOLE_SPACE_CIRCLE", "height", 17, "float", false},

    // HOLE_SPACE_INFO_V3
    {"HOLE_SPACE_INFO_V3", "circle_center", 1, "PointInfo", false},
    {"HOLE_SPACE_INFO_V3", "circle_vector", 2, "PointInfo", false},
    {"HOLE_SPACE_INFO_V3", "radius", 3, "float", false},
    {"HOLE_SPACE_INFO_V3", "circle_edge_point", 4, "PointInfo", true},
    {"HOLE_SPACE_INFO_V3", "subpix_l", 5, "PointInfo2DF", true},
    {"HOLE_SPACE_INFO_V3", "subpix_r", 6, "PointInfo2DF", true},
    {"HOLE_SPACE_INFO_V3", "left_point_weight", 7, "float", true},
    {"HOLE_SPACE_INFO_V3", "right_point_weight", 8, "float", true},
    {"HOLE_SPACE_INFO_V3", "ellipse_l", 9, "NEW_ELLIPSE_SHAPE_INFO", false},
    {"HOLE_SPACE_INFO_V3", "ellipse_r", 10, "NEW_ELLIPSE_SHAPE_INFO", false},
    {"HOLE_SPACE_INFO_V3", "statistics", 11, "float", true},
    {"HOLE_SPACE_INFO_V3", "hole_flag", 12, "int32", false},
    {"HOLE_SPACE_INFO_V3", "major_dir", 13, "PointInfo", false},
    {"HOLE_SPACE_INFO_V3", "width", 14, "float", false},
    {"HOLE_SPACE_INFO_V3", "height", 15, "float", false},
    {"HOLE_SPACE_INFO_V3", "grayscale_value", 16, "int32", false},

    // HOLE_HIGH_ACCURACY_CIRCLE_INFO
    {"HOLE_HIGH_ACCURACY_CIRCLE_INFO", "center_point", 1, "PointInfo", false},
    {"HOLE_HIGH_ACCURACY_CIRCLE_INFO", "normal_vector", 2, "PointInfo", false},
    {"HOLE_HIGH_ACCURACY_CIRCLE_INFO", "radius", 3, "float", false},

    // HOLE_HIGH_ACCURACY_SQUARE_INFO
    {"HOLE_HIGH_ACCURACY_SQUARE_INFO", "center_point", 1, "PointInfo", false},
    {"HOLE_HIGH_ACCURACY_SQUARE_INFO", "normal_vector", 2, "PointInfo", false},
    {"HOLE_HIGH_ACCURACY_SQUARE_INFO", "major_axis", 3, "PointInfo", false},
    {"HOLE_HIGH_ACCURACY_SQUARE_INFO", "half_width", 4, "float", false},
    {"HOLE_HIGH_ACCURACY_SQUARE_INFO", "half_height", 5, "float", false},

    // HOLE_HIGH_ACCURACY_OVAL_INFO
    {"HOLE_HIGH_ACCURACY_OVAL_INFO", "center_point", 1, "PointInfo", false},
    {"HOLE_HIGH_ACCURACY_OVAL_INFO", "normal_vector", 2, "PointInfo", false},
    {"HOLE_HIGH_ACCURACY_OVAL_INFO", "major_axis", 3, "PointInfo", false},
    {"HOLE_HIGH_ACCURACY_OVAL_INFO", "half_width", 4, "float", false},
    {"HOLE_HIGH_ACCURACY_OVAL_INFO", "half_height", 5, "float", false},

    // HOLE_HIGH_ACCURACY_SPACE_INFO
    {"HOLE_HIGH_ACCURACY_SPACE_INFO", "circle_info", 1, "HOLE_HIGH_ACCURACY_CIRCLE_INFO", false},
    {"HOLE_HIGH_ACCURACY_SPACE_INFO", "square_info", 2, "HOLE_HIGH_ACCURACY_SQUARE_INFO", false},
    {"HOLE_HIGH_ACCURACY_SPACE_INFO", "oval_info", 3, "HOLE_HIGH_ACCURACY_OVAL_INFO", false},
    {"HOLE_HIGH_ACCURACY_SPACE_INFO", "hole_flag", 4, "NEW_HOLE_FLAG", false},
    {"HOLE_HIGH_ACCURACY_SPACE_INFO", "grayscale_value", 5, "int32", false},

    // HOLE_HIGH_ACCURACY_SPACE_INFO_LIST
    {"HOLE_HIGH_ACCURACY_SPACE_INFO_LIST", "hole_info", 1, "HOLE_HIGH_ACCURACY_SPACE_INFO", true},

    // POINT_D_INFO_CONFID
    {"POINT_D_INFO_CONFID", "x", 1, "double", false},
    {"POINT_D_INFO_CONFID", "y", 2, "double", false},
    {"POINT_D_INFO_CONFID", "flag", 3, "bool", false},
    {"POINT_D_INFO_CONFID", "confidence", 4, "double", false},
    {"POINT_D_INFO_CONFID", "angle", 5, "float", false},
    {"POINT_D_INFO_CONFID", "distance", 6, "float", false},
    {"POINT_D_INFO_CONFID", "quadrant_flag", 7, "bool", false},

    // POINT_D_INFO_CONFID_SINGLE_HOLE
    {"POINT_D_INFO_CONFID_SINGLE_HOLE", "edge_group_left", 1, "POINT_D_INFO_CONFID", true},
    {"POINT_D_INFO_CONFID_SINGLE_HOLE", "edge_group_right", 2, "POINT_D_INFO_CONFID", true},
    {"POINT_D_INFO_CONFID_SINGLE_HOLE", "hole_space_info", 3, "HOLE_HIGH_ACCURACY_SPACE_INFO",
     false},

    // HIGH_ACCURACY_SPACE_HOLE
    {"HIGH_ACCURACY_SPACE_HOLE", "edge_group_hole", 1, "POINT_D_INFO_CONFID_SINGLE_HOLE", true},

    // DETECT_EDGE_POINTS_INFO
    {"DETECT_EDGE_POINTS_INFO", "point_3d_edge", 1, "POITN_3D_EDGE", true},

    // POITN_3D_EDGE
    {"POITN_3D_EDGE", "center", 1, "PointInfo3DF", false},
    {"POITN_3D_EDGE", "normal_vector", 2, "PointInfo3DF", false},
    {"POITN_3D_EDGE", "extend_outward_vector", 3, "PointInfo3DF", false},
    {"POITN_3D_EDGE", "index", 4, "int32", false},

    // EDGE_SUBPIXEL
    {"EDGE_SUBPIXEL", "center", 1, "PointInfo3DF", false},
    {"EDGE_SUBPIXEL", "normal_vector", 2, "PointInfo3DF", false},
    {"EDGE_SUBPIXEL", "flag", 3, "bool", false},

    // POINT_3D_EDGE_WITH_SUBPIXEL
    {"POINT_3D_EDGE_WITH_SUBPIXEL", "cut_edge_point", 1, "POITN_3D_EDGE", false},
    {"POINT_3D_EDGE_WITH_SUBPIXEL", "left_subpixel", 2, "EDGE_SUBPIXEL", false},
    {"POINT_3D_EDGE_WITH_SUBPIXEL", "right_subpixel", 3, "EDGE_SUBPIXEL", false},

    // ScanRealTimeDataV4
    {"ScanRealTimeDataV4", "viewRT", 1, "double", true},
    {"ScanRealTimeDataV4", "objectdist", 2, "float", false},
    {"ScanRealTimeDataV4", "lzpointbase", 3, "double", true},
    {"ScanRealTimeDataV4", "lzpoint", 4, "int32", true},
    {"ScanRealTimeDataV4", "lzdata", 5, "LZCoor", true},
    {"ScanRealTimeDataV4", "frameindex", 6, "int32", false},
    {"ScanRealTimeDataV4", "lzBrightLevel", 7, "int32", false},
    {"ScanRealTimeDataV4", "mkpoint", 8, "MKPoint", true},
    {"ScanRealTimeDataV4", "hole_info", 9, "NEW_HOLE_SPACE_CIRCLE", true},
    {"ScanRealTimeDataV4", "scannerP", 10, "CamParam", false},
    {"ScanRealTimeDataV4", "lzt", 11, "LaserType", false},
    {"ScanRealTimeDataV4", "lzsegment", 12, "int32", true},
    {"ScanRealTimeDataV4", "lzPointCountpersegment", 13, "int32", true},
    {"ScanRealTimeDataV4", "cameraFrameRate", 14, "int32", true},
    {"ScanRealTimeDataV4", "mkimage", 15, "MKPointImage", false},

    // ScanRealTimeDataV5
    {"ScanRealTimeDataV5", "viewRT", 1, "double", true},
    {"ScanRealTimeDataV5", "objectdist", 2, "float", false},
    {"ScanRealTimeDataV5", "lzpointbase", 3, "double", true},
    {"ScanRealTimeDataV5", "lzpoint", 4, "int32", true},
    {"ScanRealTimeDataV5", "lzdata", 5, "LZCoor", true},
    {"ScanRealTimeDataV5", "frameindex", 6, "int32", false},
    {"ScanRealTimeDataV5", "lzBrightLevel", 7, "int32", false},
    {"ScanRealTimeDataV5", "mkpoint", 8, "MKPoint", true},
    {"ScanRealTimeDataV5", "hole_info", 9, "HOLE_SPACE_INFO_V3", true},
    {"ScanRealTimeDataV5", "scannerP", 10, "CamParam", false},
    {"ScanRealTimeDataV5", "lzt", 11, "LaserType", false},
    {"ScanRealTimeDataV5", "lzsegment", 12, "int32", true},
    {"ScanRealTimeDataV5", "lzPointCountpersegment", 13, "int32", true},
    {"ScanRealTimeDataV5", "cameraFrameRate", 14, "int32", true},
    {"ScanRealTimeDataV5", "mkimage", 15, "MKPointImage", false},
    {"ScanRealTimeDataV5", "space_hole_info", 16, "HIGH_ACCURACY_SPACE_HOLE", false},
    {"ScanRealTimeDataV5", "tracker_id", 17, "string", false},

    // EdgeRealTimeData
    {"EdgeRealTimeData", "viewRT", 1, "double", true},
    {"EdgeRealTimeData", "objectdist", 2, "float", false},
    {"EdgeRealTimeData", "frameindex", 3, "int32", false},
    {"EdgeRealTimeData", "lzBrightLevel", 4, "int32", false},
    {"EdgeRealTimeData", "scannerP", 5, "CamParam", false},
    {"EdgeRealTimeData", "lzt", 6, "LaserType", false},
    {"EdgeRealTimeData", "cameraFrameRate", 7, "int32", true},
    {"EdgeRealTimeData", "tracker_id", 8, "string", false},
    {"EdgeRealTimeData", "point_3d_edge_with_subpixel", 9, "POINT_3D_EDGE_WITH_SUBPIXEL", true},

    // LowPartCfg
    {"LowPartCfg", "strSysName", 1, "string", false},
    {"LowPartCfg", "bUseLocal", 2, "int32", false},
    {"LowPartCfg", "bUsePriplad", 3, "int32", false},
    {"LowPartCfg", "bUseNet", 4, "int32", false},
    {"LowPartCfg", "bSyncId", 5, "int32", false},
    {"LowPartCfg", "PripladIP", 6, "string", true},
    {"LowPartCfg", "nSysId", 7, "int32", false},

    // LP_UPLOAD_DATA
    {"LP_UPLOAD_DATA", "mkpoint", 1, "MKPoint", true},
    {"LP_UPLOAD_DATA", "mksolve", 2, "MKPointSolve", true},
    {"LP_UPLOAD_DATA", "mksolvert", 3, "MKPointSolveRT", true},
    {"LP_UPLOAD_DATA", "JoinMKCount", 4, "int32", false},
    {"LP_UPLOAD_DATA", "tracker_id", 5, "string", false},

    // CameraDiagnosticInfo
    {"CameraDiagnosticInfo", "strCfgCamSN", 1, "string", false},
    {"CameraDiagnosticInfo", "strCamSN", 2, "string", false},
    {"CameraDiagnosticInfo", "strCamFirmwareVersion", 3, "string", false},
    {"CameraDiagnosticInfo", "dCameraTemp", 4, "double", false},
    {"CameraDiagnosticInfo", "bIsConnection", 5, "bool", false},
    {"CameraDiagnosticInfo", "nCameraFPS", 6, "int32", false},
    {"CameraDiagnosticInfo", "nRecogEllipseCount", 7, "int32", false},
    {"CameraDiagnosticInfo", "nRecogEllipseLight", 8, "int32", false},

    // ScannerDiagnosticInfo
    {"ScannerDiagnosticInfo", "strDeviceID", 1, "string", false},
    {"ScannerDiagnosticInfo", "strFirmwareVersion", 2, "string", false},
    {"ScannerDiagnosticInfo", "bIsSuperSpeed", 3, "bool", false},
    {"ScannerDiagnosticInfo", "dDeviceTemp", 5, "double", false},
    {"ScannerDiagnosticInfo", "bIsCamTrigger", 6, "bool", false},
    {"ScannerDiagnosticInfo", "nCameraSyncFPS", 7, "int32", false},
    {"ScannerDiagnosticInfo", "nReconEllipseCount", 8, "int32", false},
    {"ScannerDiagnosticInfo", "bIsLZTrigger", 9, "bool", false},
    {"ScannerDiagnosticInfo", "nLZLight", 10, "int32", false},
    {"ScannerDiagnosticInfo", "nLZIdentifyPercent", 11, "int32", false},
    {"ScannerDiagnosticInfo", "dLZClbTemp", 12, "double", false},
    {"ScannerDiagnosticInfo", "strIP", 13, "string", false},
    {"ScannerDiagnosticInfo", "nIPSignalQuality", 14, "int32", false},
    {"ScannerDiagnosticInfo", "cameraDiagnosticInfo", 15, "CameraDiagnosticInfo", true},
    {"ScannerDiagnosticInfo", "wifiInfo", 16, "WifiInfo", false},

    // TrackerDiagnosticInfo
    {"TrackerDiagnosticInfo", "strDeviceID", 1, "string", false},
    {"TrackerDiagnosticInfo", "strFirmwareVersion", 2, "string", false},
    {"TrackerDiagnosticInfo", "bIsSuperSpeed", 3, "bool", false},
    {"TrackerDiagnosticInfo", "dDeviceTemp", 5, "double", false},
    {"TrackerDiagnosticInfo", "bIsCamTrigger", 6, "bool", false},
    {"TrackerDiagnosticInfo", "nCameraSyncFPS", 7, "int32", false},
    {"TrackerDiagnosticInfo", "nReconEllipseCount", 8, "int32", false},
    {"TrackerDiagnosticInfo", "dMarkPointErr", 9, "double", false},
    {"TrackerDiagnosticInfo", "dLPErr", 10, "double", false},
    {"TrackerDiagnosticInfo", "nLPSignalQuality", 11, "int32", false},
    {"TrackerDiagnosticInfo", "dBDBErr", 12, "double", false},
    {"TrackerDiagnosticInfo", "nScannerAngle", 13, "double", true},
    {"TrackerDiagnosticInfo", "strIP", 14, "string", false},
    {"TrackerDiagnosticInfo", "nIPSignalQuality", 15, "int32", false},
    {"TrackerDiagnosticInfo", "cameraDiagnosticInfo", 16, "CameraDiagnosticInfo", true},
    {"TrackerDiagnosticInfo", "nDeviceType", 17, "int32", false},
    {"TrackerDiagnosticInfo", "wifiInfo", 18, "WifiInfo", false},

    // DiagnosticInfo
    {"DiagnosticInfo", "strBDBID", 1, "string", false},
    {"DiagnosticInfo", "strBarID", 2, "string", false},
    {"DiagnosticInfo", "strSpinCamDriver", 3, "string", false},
    {"DiagnosticInfo", "strHikCamDriver", 4, "string", false},
    {"DiagnosticInfo", "nSerialPortNum", 5, "int32", false},
    {"DiagnosticInfo", "bDeviceSyncStatus", 6, "bool", false},
    {"DiagnosticInfo", "scannerDiagnosticInfo", 7, "ScannerDiagnosticInfo", true},
    {"DiagnosticInfo", "trackerDiagnosticInfo", 8, "TrackerDiagnosticInfo", true},

    // PripladInfo
    {"PripladInfo", "strDeviceID", 1, "string", false},
    {"PripladInfo", "strIP", 2, "string", false},
    {"PripladInfo", "nIPSignalQuality", 3, "int32", false},
    {"PripladInfo", "nCurElectric", 4, "int32", false},
    {"PripladInfo", "nElectric1", 5, "int32", false},
    {"PripladInfo", "nElectric2", 6, "int32", false},

    // PripladInfoList
    {"PripladInfoList", "pripladInfo", 1, "PripladInfo", true},

    // LightPenInfo
    {"LightPenInfo", "strDeviceSN", 1, "string", false},
    {"LightPenInfo", "strLightPenSN", 2, "string", false},
    {"LightPenInfo", "nLPSignalQuality", 3, "int32", false},
    {"LightPenInfo", "nLPFrequency", 4, "int32", false},

    // LightPenInfoList
    {"LightPenInfoList", "lightPenInfo", 1, "LightPenInfo", true},

    // LPPairingInfo
    {"LPPairingInfo", "strLightPenSN", 1, "string", false},
    {"LPPairingInfo", "bPairingSuccess", 2, "bool", false},

    // EnumPripladInfo
    {"EnumPripladInfo", "strPripladSN", 1, "string", false},
    {"EnumPripladInfo", "strPripladName", 2, "string", false},
    {"EnumPripladInfo", "strPripladVersion", 3, "string", false},
    {"EnumPripladInfo", "strPripladIP", 4, "string", false},

    // EnumPripladInfoList
    {"EnumPripladInfoList", "enumPripladInfo", 1, "EnumPripladInfo", true},

    // OptRT
    {"OptRT", "frameId", 1, "int32", false},
    {"OptRT", "R", 2, "double", true},
    {"OptRT", "T", 3, "double", true},

    // OptMK
    {"OptMK", "mkindex", 1, "int32", false},
    {"OptMK", "xyz", 2, "double", true},
    {"OptMK", "vct", 3, "double", true},
    {"OptMK", "radius", 4, "double", false},

    // OptRTList
    {"OptRTList", "OptType", 1, "int32", false},
    {"OptRTList", "optRT", 2, "OptRT", true},
    {"OptRTList", "optMk", 3, "OptMK", true},

    // WifiInfo
    {"WifiInfo", "strWifiName", 1, "string", false},
    {"WifiInfo", "strWifiPassword", 2, "string", false},

    // WIFIReconnect
    {"WIFIReconnect", "deviceSN", 1, "string", false},
    {"WIFIReconnect", "response", 2, "int32", false},

    // WIFIConnectProcessInfo
    {"WIFIConnectProcessInfo", "deviceSN", 1, "string", false},
    {"WIFIConnectProcessInfo", "deviceType", 2, "int32", false},
    {"WIFIConnectProcessInfo", "messageType", 3, "int32", false},
    {"WIFIConnectProcessInfo", "eventMessage", 4, "string", false},

    // HoleParamter
    {"HoleParamter", "HoleType", 1, "int32", false},
    {"HoleParamter", "SurfaceColor", 2, "int32", false},
    {"HoleParamter", "SurfaceProcess", 3, "int32", false},

    // LightPenDotInfo
    {"LightPenDotInfo", "bSuccess", 1, "bool", false},
    {"LightPenDotInfo", "point", 2, "double", true},
    {"LightPenDotInfo", "nor", 3, "double", true},
    {"LightPenDotInfo", "radius", 4, "double", false},

    // LightPenConnectRequet
    {"LightPenConnectRequet", "lightpenSN", 1, "string", false},
    {"LightPenConnectRequet", "connectType", 2, "int32", false},
    {"LightPenConnectRequet", "connectStatue", 3, "int32", false},

    // LightPenConnectRequetList
    {"LightPenConnectRequetList", "lightpenRequestList", 1, "LightPenConnectRequet", true},

    // LightPenConnectCommand
    {"LightPenConnectCommand", "lightpenSN", 1, "string", false},
    {"LightPenConnectCommand", "connectType", 2, "int32", false},
    {"LightPenConnectCommand", "response", 3, "int32", false},

    // LightPenDisconnectCommand
    {"LightPenDisconnectCommand", "lightpenSN", 1, "string", false},
    {"LightPenDisconnectCommand", "response", 2, "int32", false},

    // SetLightPenParameter
    {"SetLightPenParameter", "lightpenSN", 1, "string", false},
    {"SetLightPenParameter", "measurePosition", 2, "int32", false},
    {"SetLightPenParameter", "probeRadius", 3, "double", false},
    {"SetLightPenParameter", "exRodlength", 4, "double", false},
    {"SetLightPenParameter", "needleCoordinate", 5, "double", true},

    // SetLightPenParameterResponse
    {"SetLightPenParameterResponse", "lightpenSN", 1, "string", false},
    {"SetLightPenParameterResponse", "response", 2, "int32", false},

    // LightPenCalibrateResponse
    {"LightPenCalibrateResponse", "lightpenSN", 1, "string", false},
    {"LightPenCalibrateResponse", "measurePosition", 2, "int32", false},
    {"LightPenCalibrateResponse", "probeRadius", 3, "double", false},
    {"LightPenCalibrateResponse", "exRodlength", 4, "double", false},
    {"LightPenCalibrateResponse", "needleCoordinate", 5, "double", true},
    {"LightPenCalibrateResponse", "calibrateResult", 6, "double", false},
    {"LightPenCalibrateResponse", "calibrateTime", 7, "string", false},

    // LightPenTrackQuality
    {"LightPenTrackQuality", "lightpenSN", 1, "string", false},
    {"LightPenTrackQuality", "measurePosition", 2, "int32", false},
    {"LightPenTrackQuality", "markerRate", 3, "double", false},

    // LightpenWarnInfo
    {"LightpenWarnInfo", "lightpenSN", 1, "string", false},
    {"LightpenWarnInfo", "measurePosition", 2, "int32", false},
    {"LightpenWarnInfo", "probeRadius", 3, "double", false},
    {"LightpenWarnInfo", "exRodlength", 4, "double", false},
    {"LightpenWarnInfo", "needleCoordinate", 5, "double", true},
    {"LightpenWarnInfo", "warnType", 6, "int32", false},

    // SetLightpenType
    {"SetLightpenType", "lightpenType", 1, "int32", false},
    {"SetLightpenType", "response", 2, "int32", false},
    {"SetLightpenType", "bInitSet", 3, "int32", false},

    // LightpenOnline
    {"LightpenOnline", "lightpenSN", 1, "string", false},
    {"LightpenOnline", "connectType", 2, "int32", false},
    {"LightpenOnline", "connectStatue", 3, "int32", false},
    {"LightpenOnline", "bOnlineAgain", 4, "int32", false},

    // LightpenType
    {"LightpenType", "lightpenSN", 1, "string", false},
    {"LightpenType", "lightpenType", 2, "int32", false},

    // LightpenFeatureFitResult
    {"LightpenFeatureFitResult", "lightpenSN", 1, "string", false},
    {"LightpenFeatureFitResult", "featureType", 2, "int32", false},
    {"LightpenFeatureFitResult", "bFitSuccess", 3, "int32", false},

    // DeleteLightPenParameter
    {"DeleteLightPenParameter", "lightpenSN", 1, "string", false},
    {"DeleteLightPenParameter", "measurePosition", 2, "int32", false},
    {"DeleteLightPenParameter", "probeRadius", 3, "double", false},
    {"DeleteLightPenParameter", "exRodlength", 4, "double", false},
    {"DeleteLightPenParameter", "response", 5, "int32", false},

    // SetLPTrackSensitivity
    {"SetLPTrackSensitivity", "lackMarkerNumber", 1, "int32", false},
    {"SetLPTrackSensitivity", "response", 2, "int32", false},

    // NotifyLightpenVersion
    {"NotifyLightpenVersion", "lightpenSN", 1, "string", false},
    {"NotifyLightpenVersion", "version", 2, "string", false},

    // SetLPHighAccuracyDot
    {"SetLPHighAccuracyDot", "enableHighAccuracyDot", 1, "int32", false},
    {"SetLPHighAccuracyDot", "response", 2, "int32", false},

    // DeviceBatteryInfoList
    {"DeviceBatteryInfoList", "batteryInfoList", 1, "DeviceBatteryInfo", true},

    // DeviceBatteryInfo
    {"DeviceBatteryInfo", "deviceSN", 1, "string", false},
    {"DeviceBatteryInfo", "batteryType", 2, "int32", false},
    {"DeviceBatteryInfo", "alarmInfo", 3, "int32", false},
    {"DeviceBatteryInfo", "batteryCapacity", 4, "int32", false},
    {"DeviceBatteryInfo", "hasTemperatureSensor", 5, "bool", false},
    {"DeviceBatteryInfo", "batteryTemprature", 6, "float", false},

    // RKProcessDataRate
    {"RKProcessDataRate", "deviceSN", 1, "string", false},
    {"RKProcessDataRate", "RKprocessRate", 2, "float", false},
    {"RKProcessDataRate", "calEllipseRate", 3, "float", false},
    {"RKProcessDataRate", "dmaRecvRate", 4, "float", false},

    // WIFISignalStrength
    {"WIFISignalStrength", "deviceSN", 1, "string", false},
    {"WIFISignalStrength", "signalStength", 2, "int32", false},
    {"WIFISignalStrength", "signalStrenth_dB", 3, "int32", false},
    {"WIFISignalStrength", "sendErrorPacketsPerMin", 4, "int32", false},
    {"WIFISignalStrength", "sendSpeedMBPerSec", 5, "int32", false},
    {"WIFISignalStrength", "recvErrorPacketsPerMin", 6, "int32", false},
    {"WIFISignalStrength", "recvSpeedMBPerSec", 7, "int32", false},
    {"WIFISignalStrength", "frequencyBandStart", 8, "int32", false},
    {"WIFISignalStrength", "frequencyWidth", 9, "int32", false},
    {"WIFISignalStrength", "channel", 10, "int32", false},
    {"WIFISignalStrength", "WLANStatue", 11, "int32", false},

    // FirmwareVersionCheck
    {"FirmwareVersionCheck", "deviceSN", 1, "string", false},
    {"FirmwareVersionCheck", "currenVersion", 2, "string", false},
    {"FirmwareVersionCheck", "minimumVersion", 3, "string", false},

    // GetDeviceIsSample
    {"GetDeviceIsSample", "deviceSN", 1, "string", false},
    {"GetDeviceIsSample", "isSample", 2, "int32", false},

    // SetDeviceDepth
    {"SetDeviceDepth", "deviceSN", 1, "string", false},
    {"SetDeviceDepth", "min_depth", 2, "int32", false},
    {"SetDeviceDepth", "max_depth", 3, "int32", false},
};

// Every value of every enumeration, enumerations in the order of the schema file.
inline constexpr EnumValueRow kEnumValues[] = {
    // LUMORA_STATE
    {"LUMORA_STATE", "SUCCESS_ERR", 0},
    {"LUMORA_STATE", "OPEN_CAMERA_ERR", 3},
    {"LUMORA_STATE", "START_USB2_ERR", 4},
    {"LUMORA_STATE", "DEVICE_START_ERR", 5},
    {"LUMORA_STATE", "DEVICE_START_TIMEOUT_ERR", 6},
    {"LUMORA_STATE", "CLB_RESULT_ERR", 7},
    {"LUMORA_STATE", "CLB_NO_OPERATION_ERR", 8},
    {"LUMORA_STATE", "RECOGQR_SUCC", 9},
    {"LUMORA_STATE", "CONFIG_ERR", 10},
    {"LUMORA_STATE", "TRACK_MP_ERR", 11},
    {"LUMORA_STATE", "TRACK_SCANNER_ERR", 12},
    {"LUMORA_STATE", "TRACK_PLATE_ERR", 13},
    {"LUMORA_STATE", "DEVICE_NEED_CLB_ERR", 14},
    {"LUMORA_STATE", "SET_TRACK_SCAN_CFG_ERR", 15},
    {"LUMORA_STATE", "STATUS_ERR", 103},
    {"LUMORA_STATE", "NO_INIT_ERR", 104},
    {"LUMORA_STATE", "REPEAT_INIT_ERR", 105},
    {"LUMORA_STATE", "OTHER_WORKING_ERR", 106},
    {"LUMORA_STATE", "UNSUPPORT_CMD_ERR", 107},
    {"LUMORA_STATE", "MODE_ERROR", 108},
    {"LUMORA_STATE", "SCAN_SRV_ERR", 109},
    {"LUMORA_STATE", "SCANNER_CLB_SRV_ERR", 110},
    {"LUMORA_STATE", "BAR_CLB_SRV_ERR", 111},
    {"LUMORA_STATE", "CONFIG_FILE_ERROR", 113},
    {"LUMORA_STATE", "PRARA_ERROR", 114},
    {"LUMORA_STATE", "CAMERA_TYPE_ERROR", 123},
    {"LUMORA_STATE", "CAMERA_SN_ERROR", 124},
    {"LUMORA_STATE", "CAMERA_SETTING_ERROR", 125},
    {"LUMORA_STATE", "DEVICE_INIT_ERR", 126},
    {"LUMORA_STATE", "SERIAL_PORT_ERROR", 129},
    {"LUMORA_STATE", "MASTER_SET_ERR", 130},
    {"LUMORA_STATE", "DEVICE_ID_ERROR", 131},
    {"LUMORA_STATE", "DEVICE_TYPE_ERROR", 132},
    {"LUMORA_STATE", "DEVICE_OFF", 133},
    {"LUMORA_STATE", "DEVICE_NO_PRE_TRIGGER", 134},
    {"LUMORA_STATE", "DEVICE_NO_LZ", 135},
    {"LUMORA_STATE", "LIGHT_TYPE_ERROR", 136},
    {"LUMORA_STATE", "BAR_DATA_SIZE_ERR", 155},
    {"LUMORA_STATE", "BAR_INIT_DATA_ERR", 156},
    {"LUMORA_STATE", "BAR_CLB_FINISH", 157},
    {"LUMORA_STATE", "BAR_CAL_ERR", 158},
    {"LUMORA_STATE", "BAR_CLBBAR_POS_ERR", 159},
    {"LUMORA_STATE", "BAR_CLBBAR_POSE_ERR", 160},
    {"LUMORA_STATE", "BUG_ERROR", 201},
    {"LUMORA_STATE", "NULLPTR_ERROR", 202},
    {"LUMORA_STATE", "WAIT_REMOTE_RET", 203},
    {"LUMORA_STATE", "CLB_ERROR_POINT", 204},
    {"LUMORA_STATE", "LP_NEEDLE_CLB_SUCC", 205},

    // LightType
    {"LightType", "RED", 0},
    {"LightType", "BLUE", 1},
    {"LightType", "IR", 2},

    // LaserType
    {"LaserType", "SingleRed", 0},
    {"LaserType", "MulRed", 1},
    {"LaserType", "SingleBlue", 2},
    {"LaserType", "MulBlue", 3},

    // DeviceType
    {"DeviceType", "TRACKER", 0},
    {"DeviceType", "SCANNER", 1},

    // DeviceStatus
    {"DeviceStatus", "Online", 0},
    {"DeviceStatus", "WORKING", 1},
    {"DeviceStatus", "OFFLINE", 2},

    // ButtonActType
    {"ButtonActType", "CLICK", 0},
    {"ButtonActType", "DBLCLICK", 1},
    {"ButtonActType", "LONGACT", 2},

    // ScannerMixedType
    {"ScannerMixedType", "M111010", 0},
    {"ScannerMixedType", "M010111", 1},
    {"ScannerMixedType", "M1111", 2},
    {"ScannerMixedType", "M11111", 3},

    // TrackerMixedType
    {"TrackerMixedType", "T_general", 0},

    // CLBBAR_POSE
    {"CLBBAR_POSE", "BAR_ERROR_POSE", 0},
    {"CLBBAR_POSE", "BAR_LEVEL_POSE", 1},
    {"CLBBAR_POSE", "BAR_VERTICAL_POSE", 2},
    {"CLBBAR_POSE", "BAR_FRONT_BACK_UP_POSE", 3},
    {"CLBBAR_POSE", "BAR_FRONT_BACK_DOWN_POSE", 4},
    {"CLBBAR_POSE", "BAR_ERROR_POINT", 5},

    // WorkBusiness
    {"WorkBusiness", "BAR_CLB_WORK", 0},
    {"WorkBusiness", "SCANNER_CLB_WORK", 1},
    {"WorkBusiness", "SCAN_WORK", 2},
    {"WorkBusiness", "LP_CLB_WORK", 3},
    {"WorkBusiness", "LP_WORK", 4},
    {"WorkBusiness", "ONLY_LED", 5},
    {"WorkBusiness", "ONLY_SCANNER", 6},
    {"WorkBusiness", "TRACK_CLB_PLATE", 7},
    {"WorkBusiness", "TRACK_MP", 8},
    {"WorkBusiness", "SCAN_WORK_QF", 9},
    {"WorkBusiness", "SCAN_PLATE_QR", 10},
    {"WorkBusiness", "SCAN_HOLE", 11},
    {"WorkBusiness", "SCAN_MK", 12},
    {"WorkBusiness", "TRACK_SCANNER", 13},
    {"WorkBusiness", "TRACK_LP_BASE", 14},
    {"WorkBusiness", "SCAN_HOLE_QF", 15},
    {"WorkBusiness", "LP_CLB_WORK_NO_BASE", 16},
    {"WorkBusiness", "HEAT_DEVICE", 17},
    {"WorkBusiness", "MTRACK_MODEL_CREATE", 18},
    {"WorkBusiness", "MTRACK_TRACK_MODEL", 19},
    {"WorkBusiness", "LP_NEEDLE_CLB_WORK", 20},
    {"WorkBusiness", "LP_WORK_QF", 21},
    {"WorkBusiness", "HIGH_ACCURACY_SCAN_HOLE", 22},
    {"WorkBusiness", "SCAN_MK_BY_SCANNER", 23},
    {"WorkBusiness", "HIGH_ACCURACY_SCAN_HOLE_QF", 24},
    {"WorkBusiness", "SCAN_MK_BY_SCANNER_IN_TRACKER", 25},
    {"WorkBusiness", "CALIBRATION_ONLY_SCANNER", 26},
    {"WorkBusiness", "BAR_CLB_WORK_CATCHIMG", 27},
    {"WorkBusiness", "SCANNER_CLB_WORK_CATCHIMG", 28},
    {"WorkBusiness", "SCANNER_CLB_WORK_LZ_CATCHIMG", 29},
    {"WorkBusiness", "SCAN_EDGE", 30},
    {"WorkBusiness", "SCAN_EDGE_QF", 31},
    {"WorkBusiness", "TRACK_PREVIEW", 32},

    // LPHeadType
    {"LPHeadType", "Rubine", 0},
    {"LPHeadType", "Needle", 1},

    // NEW_HOLE_FLAG
    {"NEW_HOLE_FLAG", "HOLE_DETECTION_CIRCLE_DRILL", 0},
    {"NEW_HOLE_FLAG", "HOLE_DETECTION_OVAL_SLOT", 1},
    {"NEW_HOLE_FLAG", "HOLE_DETECTION_SQUARE_SLOT", 2},
};

}  // namespace schema_table
