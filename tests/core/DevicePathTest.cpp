#include <gtest/gtest.h>

#include "core/OrvDevicePath.h"

// Only files directly in /data move to the data directory; everything else stays.
TEST(DevicePath, DataDirectoryTakesOnlyFilesDirectlyInData) {
    const struct {
        const char* path;
        const char* dataDir;
        const char* placed;
    } rows[] = {
        {"/data/orvpolicy", "/data/system/orvd", "/data/system/orvd/orvpolicy"},
        {"/data/___orvtemp", "/data/system/orvd", "/data/system/orvd/___orvtemp"},
        {"/system/etc/orvpolicy", "/data/system/orvd", "/system/etc/orvpolicy"},
        {"/data/local/tmp/x", "/data/system/orvd", "/data/local/tmp/x"},
        {"/data/", "/data/system/orvd", "/data/"},
        {"/database", "/data/system/orvd", "/database"},
        {"/data/orvpolicy", "", "/data/orvpolicy"},
        {"/data/orvpolicy", nullptr, "/data/orvpolicy"},
    };
    for (const auto& r : rows)
        EXPECT_EQ(r.placed, OrvDataPlacement(r.path, r.dataDir))
            << r.path << " in " << (r.dataDir ? r.dataDir : "(null)");
}
