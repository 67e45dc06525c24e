// Disk descriptors and VM configurations as the snapshot reader sees them.
#include "Vmx.h"
#include "vshost/vmdk.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

namespace fs = std::filesystem;
using namespace vshost::vmdk;

namespace {

TEST(Descriptors, FlatKindsAsDiskToolsWriteThem) {
    Descriptor d;
    std::string why;
    // Split flat with a quoted name holding blanks, a zero extent, comments and odd case.
    ASSERT_TRUE(
        Parse("# Disk DescriptorFile\ncreateType=\"twoGbMaxExtentFlat\"\n"
              "RW 4096 FLAT \"disk one-f001.vmdk\" 0\n"
              "rw 2048 flat \"disk one-f002.vmdk\" 16   # tail comment\n"
              "RW 1024 ZERO\n"
              "ddb.geometry.cylinders = \"16\"\n",
              "/ds/vm", d, why))
        << why;
    EXPECT_EQ(d.createType, "twoGbMaxExtentFlat");
    ASSERT_EQ(d.extents.size(), 3u);
    EXPECT_EQ(d.extents[0].file, "/ds/vm/disk one-f001.vmdk");
    EXPECT_EQ(d.extents[1].type, "FLAT");
    EXPECT_EQ(d.extents[1].offsetSectors, 16u);
    EXPECT_TRUE(d.extents[2].IsZero());
    EXPECT_EQ(d.SizeBytes(), (4096u + 2048u + 1024u) * 512u);

    // VMFS flat carries no offset.
    ASSERT_TRUE(Parse("createType=\"vmfs\"\nRW 8 VMFS \"a-flat.vmdk\"\n", "/x", d, why));
    EXPECT_EQ(d.extents[0].offsetSectors, 0u);

    // A delta: its sparse extent, parent and content ids; the extent line in qemu's form.
    ASSERT_TRUE(
        Parse("CID=0a1b2c3d\nparentCID=fffffffe\ncreateType=\"seSparse\"\nparentFileNameHint=\"web01.vmdk\"\n"
              "RW 8 SESPARSE \"web01-000001-sesparse.vmdk\"\n",
              "/x", d, why))
        << why;
    EXPECT_TRUE(d.extents[0].IsSparse() && d.extents[0].strict && !d.Flat());
    EXPECT_EQ(d.parentHint, "web01.vmdk");
    EXPECT_TRUE(d.hasCid);
    EXPECT_EQ(d.cid, 0x0a1b2c3du);
    EXPECT_EQ(d.parentCid, 0xfffffffeu);
    // Lines qemu would read otherwise (or skip) are told apart, so such a disk is never
    // handed to qemu: lower case, an unquoted name, a FLAT extent without its offset.
    for (const char* loose : {"rw 8 SPARSE \"a.vmdk\"", "RW 8 SPARSE a.vmdk", "RW 8 FLAT \"a.vmdk\""}) {
        ASSERT_TRUE(Parse(std::string(loose) + "\n", "/x", d, why)) << loose;
        EXPECT_FALSE(d.extents[0].strict) << loose;
    }

    // Refusals name what is wrong. Any blank ends a line's first word, as it does for
    // qemu: an extent line it would read is never passed over here.
    EXPECT_FALSE(Parse("RW\v8 FLAT \"/etc/passwd\" 0\n", "/x", d, why));
    EXPECT_NE(why.find("absolute names"), std::string::npos) << why;
    EXPECT_FALSE(Parse("RW 8 TAPE \"a.vmdk\"\n", "/x", d, why));
    EXPECT_NE(why.find("TAPE"), std::string::npos);
    EXPECT_FALSE(Parse("createType=\"x\"\n", "/x", d, why));
    EXPECT_FALSE(Parse("RW many FLAT \"a\" 0\n", "/x", d, why));
    EXPECT_FALSE(Parse("RW 8 FLAT\n", "/x", d, why));
    EXPECT_FALSE(Parse("RW 8 FLAT \"unterminated 0\n", "/x", d, why));
}

TEST(Descriptors, FilesAreClassifiedByContent) {
    const fs::path dir = fs::temp_directory_path() / ("vmdk-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    auto write = [&](const std::string& name, const std::string& bytes) {
        std::ofstream(dir / name, std::ios::binary) << bytes;
        return (dir / name).string();
    };
    Descriptor d;
    std::string why;
    uint64_t size = 0;

    const std::string raw = write("disk.img", std::string(3 * 512, 'x'));
    EXPECT_EQ(Inspect(raw, d, why), Kind::RawImage);
    ASSERT_TRUE(DiskSize(raw, size, why));
    EXPECT_EQ(size, 3u * 512u);

    write("good-flat.vmdk", "");
    const std::string good = write("good.vmdk", "# Disk DescriptorFile\nRW 64 FLAT \"good-flat.vmdk\" 0\n");
    EXPECT_EQ(Inspect(good, d, why), Kind::Descriptor) << why;
    ASSERT_TRUE(DiskSize(good, size, why));
    EXPECT_EQ(size, 64u * 512u);  // from the descriptor, not the (empty) extent file

    const std::string orphan = write("orphan.vmdk", "# Disk DescriptorFile\nRW 64 FLAT \"gone-flat.vmdk\" 0\n");
    EXPECT_EQ(Inspect(orphan, d, why), Kind::Unreadable);
    EXPECT_NE(why.find("gone-flat.vmdk"), std::string::npos);

    // A sparse header makes a sparse VMDK of a .vmdk file only: a raw image is never
    // probed for a format, whatever its guest wrote at its start.
    const std::string header = std::string("KDMV\x01\0\0\0", 8) + std::string(504, '\0');
    const std::string sparse = write("sparse.vmdk", header);
    EXPECT_EQ(Inspect(sparse, d, why), Kind::Sparse);
    EXPECT_FALSE(DiskSize(sparse, size, why));
    EXPECT_EQ(Inspect(write("guest.img", header), d, why), Kind::RawImage);
    // Disk tools pad a descriptor to a whole sector with zeros.
    const std::string padded = write("padded.vmdk", "# Disk DescriptorFile\nRW 64 FLAT \"good-flat.vmdk\" 0\n");
    fs::resize_file(padded, 512);
    EXPECT_EQ(Inspect(padded, d, why), Kind::Descriptor) << why;

    EXPECT_EQ(Inspect((dir / "missing.vmdk").string(), d, why), Kind::Unreadable);
    fs::remove_all(dir);
}

TEST(Configurations, DisksNamesAndGuids) {
    const vminfo::VmxConfig cfg = vminfo::ParseVmx(
        "displayName = \"web |22prod|22\"\n"
        "UUID.BIOS = \"56 4d 1a 2b 3c 4d 5e 6f-70 81 92 a3 b4 c5 d6 e7\"\n"
        "vc.uuid = \"{5003E1F2-A3B4-C5D6-E7F8-091A2B3C4D5E}\"\n"
        "scsi0:0.fileName = \"web01.vmdk\"\n"
        "scsi0:1.present = \"FALSE\"\n"
        "scsi0:1.fileName = \"old.vmdk\"\n"
        "sata0:0.fileName = \"[ds2] web01/web01_1.vmdk\"\n"
        "ide1:0.deviceType = \"cdrom-image\"\n"
        "ide1:0.fileName = \"/iso/x.iso\"\n"
        "nvme0:0.fileName = \"fast.vmdk\"\n"
        "scsi0.fileName = \"not-a-disk\"\n"
        "ethernet0.fileName = \"nope\"\n");
    EXPECT_EQ(cfg.displayName, "web \"prod\"");
    EXPECT_EQ(cfg.biosUuid, "564d1a2b-3c4d-5e6f-7081-92a3b4c5d6e7");
    EXPECT_EQ(cfg.vcUuid, "5003e1f2-a3b4-c5d6-e7f8-091a2b3c4d5e");
    ASSERT_EQ(cfg.disks.size(), 3u);
    EXPECT_EQ(cfg.disks[0].device, "scsi0:0");
    EXPECT_EQ(cfg.disks[1].fileName, "[ds2] web01/web01_1.vmdk");
    EXPECT_EQ(cfg.disks[2].device, "nvme0:0");

    EXPECT_EQ(vminfo::CanonicalGuid("564D1A2B3C4D5E6F708192A3B4C5D6E7"), "564d1a2b-3c4d-5e6f-7081-92a3b4c5d6e7");
    EXPECT_EQ(vminfo::CanonicalGuid("web01"), "");
    EXPECT_EQ(vminfo::CanonicalGuid("564d1a2b"), "");
}

// The snapshot a .vmsd names current (or, without that key, its newest), and the disk
// file it holds per device; a current that names no listed snapshot gives none.
TEST(Configurations, SnapshotListsNameTheDiskOfEachDevice) {
    const std::string two =
        "snapshot0.uid = \"7\"\nsnapshot0.disk0.fileName = \"web01.vmdk\"\nsnapshot0.disk0.node = \"scsi0:0\"\n"
        "snapshot1.uid = \"12\"\nsnapshot1.displayName = \"backup\"\n"
        "snapshot1.disk0.fileName = \"web01-000001.vmdk\"\nsnapshot1.disk0.node = \"SCSI0:0\"\n"
        "snapshot1.disk1.fileName = \"[ds2] web01/web01_1.vmdk\"\nsnapshot1.disk1.node = \"nvme0:1\"\n";
    const struct {
        std::string current;
        const char* uid;  // null: none
    } cases[] = {{"", "12"}, {"snapshot.current = \"7\"\n", "7"}, {"snapshot.current = \"3\"\n", nullptr}};
    for (const auto& c : cases) {
        const vminfo::VmsdConfig vmsd = vminfo::ParseVmsd(c.current + two);
        const vminfo::VmsdSnapshot* snap = vmsd.Current();
        ASSERT_EQ(snap != nullptr, c.uid != nullptr) << c.current;
        if (!snap) continue;
        EXPECT_EQ(snap->uid, c.uid);
    }
    const vminfo::VmsdConfig vmsd = vminfo::ParseVmsd(two);
    const vminfo::VmsdSnapshot* newest = vmsd.Current();
    EXPECT_EQ(newest->displayName, "backup");
    EXPECT_EQ(newest->diskFiles, (std::map<std::string, std::string>{{"scsi0:0", "web01-000001.vmdk"},
                                                                     {"nvme0:1", "[ds2] web01/web01_1.vmdk"}}));
    EXPECT_EQ(vminfo::ParseVmsd("").Current(), nullptr);
}

}  // namespace
