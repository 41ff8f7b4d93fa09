#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "fwk/framework/Exception.h"
#include "fwk/framework/Handles.h"

namespace {

struct Owner {
  static constexpr const char* kTypeName = "Test::Owner";
  Kel::Handle<Owner> handle{this};
};

// Handles name their owners until the owners go, are reused lowest first, and run out at 65535.
TEST(Handles, NameLiveOwnersReuseFreedNumbersAndRefuseTheOneTooMany) {
  auto a = std::make_unique<Owner>();
  auto b = std::make_unique<Owner>();
  auto c = std::make_unique<Owner>();
  EXPECT_EQ(a->handle.value(), 1u) << "0 names nothing";
  EXPECT_EQ(Kel::Handles<Owner>::at(0), nullptr);
  EXPECT_EQ(Kel::Handles<Owner>::at(b->handle.value()), b.get());
  const std::uint16_t hb = b->handle.value();
  b.reset();
  EXPECT_EQ(Kel::Handles<Owner>::at(hb), nullptr);
  EXPECT_EQ(Kel::Handles<Owner>::at(c->handle.value()), c.get());
  b = std::make_unique<Owner>();
  EXPECT_EQ(b->handle.value(), hb);

  std::vector<std::unique_ptr<Owner>> many;
  while (many.size() < 65535 - 3) many.push_back(std::make_unique<Owner>());
  EXPECT_EQ(many.back()->handle.value(), 65535u);
  try {
    Owner one;
    FAIL() << "a 65536th owner got a handle";
  } catch (const Kel::RangeException& e) {
    EXPECT_STREQ(e.what(), "more than 65535 live Test::Owner not allowed");
  }
  many.pop_back();
  EXPECT_EQ(Owner().handle.value(), 65535u) << "the freed number is given again";
}

}  // namespace
