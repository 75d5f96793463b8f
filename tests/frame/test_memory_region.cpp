// Address classification at every boundary of the address map, and the
// validity test of regions that straddle kinds or run off their memory.
#include <gtest/gtest.h>

#include <stdexcept>

#include "frame/frame.h"

namespace {

using namespace orvane::tsu::api;

const void* addr(std::uint64_t a) { return reinterpret_cast<const void*>(a); }
std::uint64_t at(std::uint64_t hi, std::uint64_t lo) { return (hi << 32) | lo; }

struct ClassCase {
    std::uint32_t dev;
    std::uint64_t address;
    MemoryKind kind;
};

class Classify : public ::testing::TestWithParam<ClassCase> {};

TEST_P(Classify, AddressMap) {
    const auto c = GetParam();
    EXPECT_EQ(classify_address(c.dev, addr(c.address)), c.kind)
        << "dev " << c.dev << " address 0x" << std::hex << c.address;
}

constexpr auto INVALID = MemoryKind::INVALID;
constexpr auto GM = MemoryKind::GM;
constexpr auto L3 = MemoryKind::L3;
constexpr auto CPU = MemoryKind::CPU;
constexpr auto NUL = MemoryKind::NULL_PTR;

INSTANTIATE_TEST_SUITE_P(
    Region, Classify,
    ::testing::Values(
        // Null is NULL everywhere; the host takes any other address.
        ClassCase{0, 0, NUL}, ClassCase{3, 0, NUL}, ClassCase{7, 0, NUL}, ClassCase{0, 0x1, CPU},
        ClassCase{0, 0xffffffffffffffffull, CPU},
        // Type 1: L3 for hi 0 or 4 with the 0xc0 top byte, GM for hi 2, 3, 6, 7.
        ClassCase{1, at(4, 0xc0123456), L3}, ClassCase{1, at(0, 0xc0000000), L3}, ClassCase{1, at(0, 0xc0ffffff), L3},
        ClassCase{1, at(0, 0xc1000000), INVALID}, ClassCase{1, at(0, 0xbfffffff), INVALID},
        ClassCase{1, at(4, 0x1000), INVALID}, ClassCase{1, at(2, 0), GM}, ClassCase{1, at(3, 0xffffffff), GM},
        ClassCase{1, at(6, 0), GM}, ClassCase{1, at(7, 0), GM}, ClassCase{1, at(5, 0), INVALID},
        ClassCase{1, at(8, 0), INVALID}, ClassCase{1, at(1, 0), INVALID},
        // Type 2: L3 in [0xc0000000, 0xc4000000), GM in [2^35, 2^36).
        ClassCase{2, 0xc0000000, L3}, ClassCase{2, 0xc3ffffff, L3}, ClassCase{2, 0xc4000000, INVALID},
        ClassCase{2, 0xbfffffff, INVALID}, ClassCase{2, 0x800000000, GM}, ClassCase{2, 0xfffffffff, GM},
        ClassCase{2, 0x7ffffffff, INVALID}, ClassCase{2, 0x1000000000, INVALID},
        // Type 3: L3 in [0x90000000, 0x96000000) with hi 0, GM when bit 6 of hi is set.
        ClassCase{3, 0x90000000, L3}, ClassCase{3, 0x95ffffff, L3}, ClassCase{3, 0x96000000, INVALID},
        ClassCase{3, 0x8fffffff, INVALID}, ClassCase{3, at(1, 0x90000000), INVALID}, ClassCase{3, at(0x40, 0), GM},
        ClassCase{3, at(0x3f, 0xffffffff), INVALID}, ClassCase{3, at(0x5040, 0), GM},
        ClassCase{3, at(0x7fff, 0xffffffff), GM}, ClassCase{3, at(0x80, 0), INVALID},
        // Types 4 and 5: GM when the low byte of hi is in [64, 224).
        ClassCase{4, at(223, 0), GM}, ClassCase{4, at(224, 0), INVALID}, ClassCase{4, at(64, 0), GM},
        ClassCase{4, at(63, 0xffffffff), INVALID}, ClassCase{4, at(0x1c0, 0), GM}, ClassCase{5, at(0x5040, 0), GM},
        ClassCase{5, 0x90000000, L3}, ClassCase{5, 0x96000000, INVALID},
        // Unknown device types know no memory.
        ClassCase{6, at(0x5040, 0), INVALID}, ClassCase{6, 0x90000000, INVALID}));

struct RegionCase {
    std::uint32_t dev;
    std::uint64_t ptr;
    long len;
    long stride;
    bool valid;
};

class RegionValid : public ::testing::TestWithParam<RegionCase> {};

TEST_P(RegionValid, FloatRegions) {
    const auto c = GetParam();
    Context ctx(DeviceType::CPU);
    ctx.dev_type = c.dev;
    memory_region r(true, addr(c.ptr), c.len, 0);
    r.strides = {c.stride};
    EXPECT_EQ(r.is_valid<float>(&ctx), c.valid) << "dev " << c.dev << " ptr 0x" << std::hex << c.ptr << std::dec
                                                << " len " << c.len << " stride " << c.stride;
}

INSTANTIATE_TEST_SUITE_P(
    Region, RegionValid,
    ::testing::Values(
        // The last element's first byte must still lie in the same memory.
        RegionCase{3, 0x95fffff0, 4, 1, true}, RegionCase{3, 0x95fffff0, 5, 1, false},
        RegionCase{3, at(0x7f, 0xfffffff0), 4, 1, true}, RegionCase{3, at(0x7f, 0xfffffff0), 5, 1, false},
        RegionCase{2, 0xffffffff0, 4, 1, true}, RegionCase{2, 0xffffffff0, 5, 1, false},
        RegionCase{2, 0xc3fffffc, 1, 1, true}, RegionCase{2, 0xc3fffffc, 2, 1, false},
        // Straddling L3 and GM, or starting in L3 and leaving it.
        RegionCase{3, 0x95fffffc, 1L << 30, 1, false},
        // Type 2 also wants begin and end in the same 4 GiB; type 3 only in order.
        RegionCase{2, 0x8fffffffc, 2, 1, false}, RegionCase{3, at(0x40, 0xfffffffc), 2, 1, true},
        // Negative strides extend the region downwards.
        RegionCase{3, 0x90000008, 3, -1, true}, RegionCase{3, 0x90000008, 4, -1, false},
        RegionCase{3, 0x90000000, 1, -1, true}, RegionCase{3, 0x90000000, 100, 0, true},
        // Zero length, null, and addresses that classify as nothing.
        RegionCase{0, 0x1000, 0, 1, false}, RegionCase{3, 0x90000000, 0, 1, false}, RegionCase{3, 0, 4, 1, false},
        RegionCase{0, 0, 4, 1, false}, RegionCase{3, 0x1000, 4, 1, false}, RegionCase{3, 0x8000000000, 4, 1, false},
        // The host knows nothing of its memory: any non-null pointer passes.
        RegionCase{0, 0x1000, 4, 1, true}, RegionCase{0, 0xfffffffffffffff0ull, 1L << 40, 1, true}));

TEST(RegionValid, ExtentOverflowAndShapeMismatch) {
    Context ctx(DeviceType::CPU);
    ctx.dev_type = 3;
    memory_region huge(true, addr(at(0x40, 0)), 1L << 62, 0);
    EXPECT_FALSE(huge.is_valid<double>(&ctx)) << "(high - low + 1) * 8 exceeds 2^63 - 1";
    memory_region mismatch(true, addr(at(0x40, 0)), 4, 0);
    mismatch.strides.push_back(1);
    EXPECT_FALSE(mismatch.is_valid<float>(&ctx));
    memory_region empty(true, addr(at(0x40, 0)), 4, 0);
    empty.shape.clear();
    empty.strides.clear();
    EXPECT_TRUE(empty.is_valid<float>(&ctx)) << "an empty shape passes: one element at ptr";
}

TEST(RegionDetail, NotWantedMeansNotTouched) {
    memory_region r(false, addr(0x1000), 4, 0);
    EXPECT_NO_THROW(r.init_detail<float>(false, 0, __FILE__, __LINE__, nullptr, false, nullptr));
    EXPECT_EQ(r.detail, nullptr);
    EXPECT_THROW(
        {
            try {
                r.init_detail<float>(true, 0, __FILE__, __LINE__, nullptr, false, nullptr);
            } catch (const std::logic_error& e) {
                EXPECT_STREQ(e.what(), "basic_string::_M_construct null not valid");
                throw;
            }
        },
        std::logic_error);
}

TEST(RegionDetail, FilledFromTheCallAndCopiedDeeply) {
    memory_region r(true, addr(0x1000), 4, 2);
    const int line = __LINE__;
    r.init_detail<float16>(true, 17, __FILE__, line, "x", true, nullptr);
    ASSERT_NE(r.detail, nullptr);
    EXPECT_EQ(r.detail->dtype, Dtype::FLOAT16);
    EXPECT_EQ(r.detail->name, "x");
    EXPECT_EQ(r.detail->opcount, 17);
    EXPECT_EQ(r.detail->position, "frame/test_memory_region.cpp:" + std::to_string(line));
    EXPECT_EQ(r.detail->dump_position, "frame_test_memory_region_cpp_" + std::to_string(line));
    EXPECT_TRUE(r.detail->checksum_accelerate);
    EXPECT_EQ(r.detail->extra, nullptr);

    memory_region copy(r);
    ASSERT_NE(copy.detail, nullptr);
    EXPECT_NE(copy.detail, r.detail);
    EXPECT_EQ(copy.detail->name, "x");
    EXPECT_EQ(copy.shape, r.shape);
    EXPECT_EQ(copy.checksum_level, 2);

    memory_region other(false, addr(0x2000), 1, 0);
    other.init_detail<long long>(true, 0, __FILE__, __LINE__, "y", false, nullptr);
    EXPECT_EQ(other.detail->dtype, Dtype::FLOAT32) << "types without a tag of their own get 0";
    other.init_detail<int4_t>(true, 0, __FILE__, __LINE__, "y", false, nullptr);
    EXPECT_EQ(other.detail->dtype, Dtype::INT4);
}

TEST(DataTypeMap, NamesEveryEnumerator) {
    EXPECT_EQ(data_type_map.size(), 17u);
    EXPECT_EQ(data_type_map.at("FLOAT32"), Dtype::FLOAT32);
    EXPECT_EQ(data_type_map.at("INT4_WO_INT15"), Dtype::INT4_WO_INT15);
    EXPECT_EQ(static_cast<int>(data_type_map.at("XBFLOAT16")), 16);
    EXPECT_EQ(static_cast<int>(data_type_map.at("INT_WITH_LL")), 11);
}

}  // namespace
