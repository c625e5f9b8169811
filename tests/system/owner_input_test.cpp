// What the owner makes of an inventory: the bytes it says the process must hold, and every fault named.
#include "owner_input.h"

#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

using namespace system_test;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

// The fourth and fifth word of the only line: definition and information.
std::pair<std::string, std::string> records_of(const result &got)
{
    EXPECT_EQ(got.status, 0) << got.err;
    std::istringstream words(got.out);
    std::string class_id;
    std::string handle;
    std::string name;
    std::string definition;
    std::string info;
    words >> class_id >> handle >> name >> definition >> info;
    EXPECT_EQ(definition.size(), 2U * 616);
    return {definition, info};
}

std::string bytes_at(const std::string &hex, std::size_t offset, std::size_t count)
{
    return hex.size() < 2 * (offset + count) ? "too short" : hex.substr(2 * offset, 2 * count);
}

TEST_F(owner_input, places_every_common_field)
{
    const auto [definition, info] = records_of(
        read(header +
             "port-1,3,7,mtu=1500,speed=0x01020304,ifindex=0x11121314,site=0x21222324,customer=0x31323334,"
             "description=north,admin=1,pw=0x41424344,peer=10.20.30.40,priority=0x51525354\n"));
    EXPECT_EQ(bytes_at(definition, 0, 8), "706f72742d310000");
    EXPECT_EQ(bytes_at(definition, 68, 4), "000005dc");
    EXPECT_EQ(bytes_at(definition, 72, 4), "01020304");
    EXPECT_EQ(bytes_at(definition, 76, 4), "11121314");
    EXPECT_EQ(bytes_at(definition, 80, 6), "000000000000");
    EXPECT_EQ(bytes_at(definition, 86, 6), "6e6f72746800");
    EXPECT_EQ(bytes_at(definition, 608, 8), "2122232431323334");
    EXPECT_EQ(info, "00000001414243440a141e2851525354");
}

TEST_F(owner_input, places_the_fields_of_class_0)
{
    const auto [definition, info] =
        records_of(read(header + "a,0,1,mtu=64,vlan=0x123,tag=88a8,outer=0xabc\n"));
    EXPECT_EQ(bytes_at(definition, 80, 6), "000000000abc");
    EXPECT_EQ(bytes_at(info, 16, 4), "88a80123");
    EXPECT_EQ(info.size(), 2U * 20);
}

TEST_F(owner_input, places_the_fields_of_class_2)
{
    const auto [definition, info] =
        records_of(read(header + "a,2,1,mtu=64,outer=0x123,inner=0x456,slot=0x789,port=0xabc\n"));
    EXPECT_EQ(bytes_at(definition, 80, 6), "07890abc0000");
    EXPECT_EQ(bytes_at(info, 16, 4), "01230456");
}

TEST_F(owner_input, places_the_fields_of_class_6)
{
    const auto [definition, info] = records_of(read(
        header +
        "a,6,1,mtu=64,circuit=0x01020304,vlan=0x123,tag=8100,rate=0x11121314,learn=1,local=1,color=2,"
        "queue=3,ttl=0x44,keepalive=0x5152,burst=0x61626364,peak=0x71727374,key=81828384,"
        "cookie=0x9192939495969798,remote=far,serial=0xa1a2a3a4a5a6a7a8,contact=noc,epoch=0xb1b2b3b4\n"));
    EXPECT_EQ(bytes_at(definition, 80, 4), "01020304");
    EXPECT_EQ(info.size(), 2U * 200);
    EXPECT_EQ(bytes_at(info, 16, 8), "0123810011121314");
    EXPECT_EQ(bytes_at(info, 24, 1), "ab"); // learn 0x80, local 0x20, colour 2 at bits 3 and 2, queue 3
    EXPECT_EQ(bytes_at(info, 25, 11), "4451526162636471727374");
    EXPECT_EQ(bytes_at(info, 36, 12), "818283849192939495969798");
    EXPECT_EQ(bytes_at(info, 48, 4), "66617200");
    EXPECT_EQ(bytes_at(info, 120, 12), "a1a2a3a4a5a6a7a86e6f6300");
    EXPECT_EQ(bytes_at(info, 196, 4), "b1b2b3b4");
}

TEST_F(owner_input, places_the_fields_of_class_7)
{
    const auto [definition, info] = records_of(read(
        header + "a,7,1,mtu=64,system=0102030405060708,instance=0x11121314,area=212223242526272829303132,"
                 "weight1=0x41,weight2=0x42,weight3=0x43,weight4=0x44\n"));
    EXPECT_EQ(bytes_at(info, 16, 12), "010203040506070811121314");
    EXPECT_EQ(bytes_at(info, 28, 12), "212223242526272829303132");
    EXPECT_EQ(bytes_at(info, 40, 16), "00000041000000420000004300000044");
    EXPECT_EQ(info.size(), 2U * 56);
}

TEST_F(owner_input, places_the_fields_of_classes_8_and_11)
{
    const std::string long_info = records_of(read(header + "a,8,1,mtu=64,\"profile=a,\"\"b\"\"\"\n")).second;
    EXPECT_EQ(bytes_at(long_info, 16, 6), "612c22622200");
    EXPECT_EQ(long_info.size(), 2U * 2356);
    const auto [definition, info] =
        records_of(read(header + "a,11,1,mtu=64,circuit=0x01020304,tunnel=0x11121314,session=0x21222324\n"));
    EXPECT_EQ(bytes_at(definition, 80, 4), "01020304");
    EXPECT_EQ(bytes_at(info, 16, 8), "1112131421222324");
}

TEST_F(owner_input, takes_columns_comments_empty_cells_and_other_line_ends)
{
    const result got =
        read("\xEF\xBB\xBF# interfaces\r\n\r\n name , class, handle, mtu, vlan, fields\r\n"
             "b, 0, 2, 1500, 200\r\na, 0, 1, 1500, 100,, speed=10\r\n  # the end\r\nc, 3, 3, 1500,,");
    EXPECT_EQ(got.status, 0) << got.err;
    EXPECT_THAT(got.out, StartsWith("0 1 a "));
    EXPECT_THAT(got.out, HasSubstr("\n0 2 b "));
    EXPECT_THAT(got.out, HasSubstr("\n3 3 c "));
}

TEST_F(owner_input, takes_a_name_of_63_bytes_and_one_handle_in_two_classes)
{
    const result got = read(header + std::string(63, 'n') + ",3,1,mtu=64\nother,5,1,mtu=64\n");
    EXPECT_EQ(got.status, 0) << got.err;
    EXPECT_EQ(fault_of(std::string(64, 'n') + ",3,1,mtu=64\n"),
              "2:1: name: 'nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn...' is 64 bytes long, 63 at most\n");
}

struct bad_line {
    const char *lines;
    const char *fault;
};

class bad_lines : public owner_input, public testing::WithParamInterface<bad_line> {};

TEST_P(bad_lines, are_named_with_place_and_reason)
{
    EXPECT_EQ(fault_of(GetParam().lines), std::string(GetParam().fault) + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    each, bad_lines,
    testing::Values(
        bad_line{"a,3,1,mtu=64\nb,3,1,mtu=64\n", "3: handle: 1 of class 3 is that of line 2"},
        bad_line{"a,3,0,mtu=64\n", "2:5: handle: '0' is out of range, 1 to 4294967294"},
        bad_line{"a,3,0xFFFFFFFF,mtu=64\n", "2:5: handle: '0xFFFFFFFF' is out of range, 1 to 4294967294"},
        bad_line{"a,3,99999999999999999999999,mtu=64\n",
                 "2:5: handle: '99999999999999999999999' is out of range, 1 to 4294967294"},
        bad_line{"a,3,-1,mtu=64\n", "2:5: handle: '-1' is no number (decimal, or hexadecimal after 0x)"},
        bad_line{"a,3,1 2,mtu=64\n", "2:5: handle: '1 2' is no number (decimal, or hexadecimal after 0x)"},
        bad_line{"a,3,,mtu=64\n", "2:5: handle: '' is no number (decimal, or hexadecimal after 0x)"},
        bad_line{"a,9,1,mtu=64\n", "2:3: class: '9' is a class that no owner can use"},
        bad_line{"a,15,1,mtu=64\n", "2:3: class: '15' is a class that no owner can use"},
        bad_line{"a,17,1,mtu=64\n", "2:3: class: '17' is a class that no owner can use"},
        bad_line{"a,18,1,mtu=64\n", "2:3: class: '18' is out of range, 0 to 17"},
        bad_line{"a,x,1,mtu=64\n", "2:3: class: 'x' is no number (decimal, or hexadecimal after 0x)"},
        bad_line{",3,1,mtu=64\n", "2:1: name: is missing"}, bad_line{"a,3\n", "2: handle: is missing"},
        bad_line{"a,3,1\n", "2: mtu: is missing; class 3 needs it"},
        bad_line{"a,0,1,mtu=64\n", "2: vlan: is missing; class 0 needs it"},
        bad_line{"a,3,1,mtu=63\n", "2:7: mtu: '63' is out of range, 64 to 65535"},
        bad_line{"a,3,1,mtu=64,mtu=65\n", "2:14: mtu: is given twice"},
        bad_line{"a,3,1,mtu=64,colour=red\n", "2:14: 'colour': is no field"},
        bad_line{"a,3,1,mtu=64,\x1b[2J=1\n", "2:14: '?[2J': is no field"},
        bad_line{"a,3,1,mtu=64,vlan=1\n", "2:14: vlan: class 3 has no such field"},
        bad_line{"a,3,1,mtu=64,red\n", "2:14: 'red': is not of the form key=value"},
        bad_line{"a,3,1,mtu=64,peer=10.0.0\n", "2:14: peer: '10.0.0' is no IPv4 address"},
        bad_line{"a,1,1,mtu=64,vlan=1,tag=8x00\n", "2:21: tag: '8x00' is not 4 hexadecimal digits"},
        bad_line{"a,1,1,mtu=64,vlan=1,tag=810\n", "2:21: tag: '810' is not 4 hexadecimal digits"},
        bad_line{"a,3,1,mtu=64,\"description=north\n", "2:14: a quote that is not closed"},
        bad_line{"a,3,1,mtu=64,\"description=north\"x\n", "2:33: text behind a closing quote"},
        bad_line{"a\xFF,3,1,mtu=64\n", "2: line: 'a?,3,1,mtu=64' is not UTF-8"},
        bad_line{"a\xC0\xAF,3,1,mtu=64\n", "2: line: 'a??,3,1,mtu=64' is not UTF-8"},
        bad_line{"a\xED\xA0\x80,3,1,mtu=64\n", "2: line: 'a???,3,1,mtu=64' is not UTF-8"}));

TEST_F(owner_input, refuses_a_nul_byte)
{
    EXPECT_EQ(fault_of(std::string("a\0b,3,1,mtu=64\n", 15)), "2: line: contains a NUL byte\n");
}

TEST_F(owner_input, lists_all_faults_but_20_at_most)
{
    std::string lines = header;
    for (int i = 0; i < 30; ++i)
        lines += "a,3,0,mtu=64\n";
    const result got = read(lines);
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(std::count(got.err.begin(), got.err.end(), '\n'), 21);
    EXPECT_THAT(got.err, StartsWith(path_ + ":2:5: handle: "));
    EXPECT_THAT(got.err, HasSubstr(path_ + ":21:5: handle: "));
    EXPECT_THAT(got.err, testing::EndsWith(path_ + ": and 10 more\n"));
}

struct bad_file {
    const char *content;
    const char *fault;
};

class bad_files : public owner_input, public testing::WithParamInterface<bad_file> {};

TEST_P(bad_files, are_named_with_the_reason)
{
    const result got = read(GetParam().content);
    EXPECT_EQ(got.status, 2);
    EXPECT_EQ(got.err, path_ + GetParam().fault + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    each, bad_files,
    testing::Values(
        bad_file{"", ": is empty; it begins with a header line: name,class,handle,fields"},
        bad_file{"# nothing\n\n", ": is empty; it begins with a header line: name,class,handle,fields"},
        bad_file{"name,class,handle\n", ": lists no interface"},
        bad_file{"a,3,1,mtu=64\n",
                 ":1:1: header: column 1 is not 'name'; a header begins with name,class,handle"},
        bad_file{"name,class\n",
                 ":1: header: column 3 is not 'handle'; a header begins with name,class,handle"},
        bad_file{"name,class,handle,fields,mtu\n", ":1:19: fields: is the last column when there is one"},
        bad_file{"name,class,handle,size\n", ":1:19: header: 'size' is no field"},
        bad_file{"name,class,handle,mtu,mtu\n", ":1:23: header: 'mtu' is given twice"},
        bad_file{"name,class,handle,mtu\na,3,1,64,speed=1\n",
                 ":2:10: 'speed=1': lies behind the last column of the header"}));

TEST_F(owner_input, names_a_file_that_cannot_be_read)
{
    const std::string owner = system_test::binary("l2vpn-owner");
    const result missing = system_test::run(owner, {"-i", dir_.file("none.csv")});
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.err, dir_.file("none.csv") + ": No such file or directory\n");
    const result folder = system_test::run(owner, {"-i", dir_.path()});
    EXPECT_EQ(folder.status, 2);
    EXPECT_EQ(folder.err, dir_.path() + ": is a directory, not a file\n");
    const result endless = system_test::run(owner, {"-i", "/dev/zero"});
    EXPECT_EQ(endless.status, 2);
    EXPECT_EQ(endless.err, "/dev/zero: is a device or a pipe, not a file\n");
    const std::string fifo = dir_.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const result pipe = system_test::run(owner, {"-i", fifo});
    EXPECT_EQ(pipe.status, 2);
    EXPECT_EQ(pipe.err, fifo + ": is a device or a pipe, not a file\n");
    const std::string large = dir_.write("large.csv", "");
    ASSERT_EQ(truncate(large.c_str(), (off_t{256} << 20) + 1), 0);
    const result too_large = system_test::run(owner, {"-i", large});
    EXPECT_EQ(too_large.status, 2);
    EXPECT_EQ(too_large.err, large + ": is larger than 256 MiB\n");
}

} // namespace
