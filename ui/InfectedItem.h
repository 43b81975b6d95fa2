#pragma once

#include <QVariantMap>

// One row of the infected-items list: "filePath", "fileName",
// "infectionName", "status" and, once the file was moved, "originalFilePath".
using InfectedItem = QVariantMap;
