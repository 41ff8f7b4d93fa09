#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fwk/framework/Attributes.h"
#include "fwk/framework/Dir.h"

namespace {

std::vector<std::string> events;

class Watched : public Kel::Entity {
 public:
#define KEL_ATTRS_Watched(A)            \
  A(INPUT, key, Key, int)               \
  A(SCALAR, tag, Tag, std::uint32_t, 0) \
  A(POINTER, peer, Peer, Watched)       \
  A(COLLECTION, member, Member, int, bool)
  KEL_ENTITY(Watched, "Test::Watched", KEL_ATTRS_Watched)
  explicit Watched(int k) : Kel::Entity("w" + std::to_string(k)) { kelInputsIs(k); }
};

// A notifiee whose reaction to a change is set by each test.
struct Probe : Watched::Notifiee {
  std::string label;
  std::function<void()> onTagAction;
  explicit Probe(std::string l, const Kel::Ptr<const Watched>& w) : label(std::move(l)) {
    notifierIs(w);
  }
  void onTag() override {
    events.push_back(label + ".tag");
    if (onTagAction) onTagAction();
  }
  void onPeer() override { events.push_back(label + ".peer"); }
  void onMember(const int& k) override { events.push_back(label + ".member" + std::to_string(k)); }
};

class Owner;
struct KelWatched : Watched::Notifiee {
  KelWatched(Owner*, const Kel::Ptr<const Watched>& w) { notifierIs(w); }
};

class Child : public Kel::Entity {
 public:
#define KEL_ATTRS_Child(A)                            \
  A(INPUT, childName, ChildName, std::string)         \
  A(INPUT, ifIndex, IfIndex, std::uint32_t)           \
  A(INPUT, watched, Watched, Kel::Ptr<const Watched>) \
  A(SCALAR, initialized, Initialized, bool, false)
  KEL_ENTITY(Child, "Test::Child", KEL_ATTRS_Child)
  Child(const std::string& n, std::uint32_t ifIndex, Kel::Ptr<const Watched> w) : Kel::Entity(n) {
    kelInputsIs(n, ifIndex, std::move(w));
  }
  void handleInitialized() { initializedIs(true); }
};

class Owner : public Kel::Entity {
 public:
#define KEL_ATTRS_Owner(A)                                 \
  A(CHILDREN, child, Child, std::string, Child)            \
  A(NOTIFIEES, watched, Watched, int, KelWatched, Watched) \
  A(CHILD, single, Single, Child)
  KEL_ENTITY(Owner, "Test::Owner", KEL_ATTRS_Owner)
  Owner() : Kel::Entity("owner") {}
};

TEST(Notification, UnchangedValueDeliversNothingAndChangesDeliverInRegistrationOrder) {
  events.clear();
  auto w = Kel::make<Watched>(1);
  Probe a("a", w), b("b", w);
  w->tagIs(0);
  w->peerIs(nullptr);
  w->memberDel(5);
  EXPECT_TRUE(events.empty());
  w->tagIs(3);
  w->tagIs(3);
  w->memberIs(5, true);
  w->memberIs(5, true);
  w->memberDelAll();
  EXPECT_EQ(events, (std::vector<std::string>{"a.tag", "b.tag", "a.member5", "b.member5",
                                              "a.member5", "b.member5"}));
}

// A withdraw-all hints each key kPrefetchAhead deletions before it goes; the hint is no change.
TEST(Notification, DelAllHintsEachKeyAheadOfItsDeletionAndTheHintIsNoChange) {
  struct AheadProbe : Probe {
    using Probe::Probe;
    void onMemberkelAhead(const int& k) override {
      events.push_back(label + ".ahead" + std::to_string(k));
    }
  };
  struct Counting : Watched::Notifiee {
    int changes = 0;
    void kelAttributeChanged(unsigned) override { ++changes; }
  };
  events.clear();
  auto w = Kel::make<Watched>(1);
  const int n = static_cast<int>(Kel::kPrefetchAhead) + 4;
  for (int k = 0; k < n; ++k) w->memberIs(k, true);
  AheadProbe a("a", w);
  Counting generic;
  generic.notifierIs(w);
  w->memberDelAll();
  std::vector<std::string> want;
  for (int k = 0; k < n; ++k) {
    const int ahead = k + static_cast<int>(Kel::kPrefetchAhead);
    if (ahead < n) want.push_back("a.ahead" + std::to_string(ahead));
    want.push_back("a.member" + std::to_string(k));
  }
  EXPECT_EQ(events, want);
  EXPECT_EQ(generic.changes, n);
  EXPECT_EQ(w->memberCount(), 0u);
}

// A withdraw-all is a walk that deletes as it goes: what a notifiee changes meanwhile is what a
// walk would see. A later member deleted out of turn is notified once; a member the walk has
// passed and that comes back stays; a member added behind the walk goes too.
TEST(Notification, DelAllGoesOnFromWhatItsNotifieesChange) {
  struct Reacting : Watched::Notifiee {
    Kel::Ptr<Watched> w;
    explicit Reacting(const Kel::Ptr<Watched>& watched) : w(watched) { notifierIs(watched); }
    void onMember(const int& k) override {
      events.push_back((w->member(k) ? "add" : "del") + std::to_string(k));
      if (k != 1 || w->member(1)) return;
      w->memberDel(3);
      w->memberIs(1, true);
      w->memberIs(9, true);
    }
  };
  events.clear();
  auto w = Kel::make<Watched>(1);
  for (int k = 0; k < 6; ++k) w->memberIs(k, true);
  Reacting r(w);
  w->memberDelAll();
  EXPECT_EQ(events, (std::vector<std::string>{"del0", "del1", "del3", "add1", "add9", "del2",
                                              "del4", "del5", "del9"}));
  EXPECT_EQ(w->memberCount(), 1u);
  EXPECT_TRUE(w->member(1));
}

// A withdraw-all answers a lookup of the key it is notifying from its walk, not the index: every
// key must still read as it is, whichever key is asked, also while another collection's
// withdraw-all runs inside the notification, and once the walk is over.
TEST(Notification, LookupsDuringDelAllSeeEveryKeyAsItIs) {
  struct Looking : Watched::Notifiee {
    Kel::Ptr<Watched> w;
    Kel::Ptr<Watched> other;
    explicit Looking(const Kel::Ptr<Watched>& watched, const Kel::Ptr<Watched>& o)
        : w(watched), other(o) {
      notifierIs(watched);
    }
    void onMember(const int& k) override {
      if (k == 2) other->memberDelAll();
      std::string seen = std::to_string(k) + ":";
      for (int j = 0; j < 4; ++j) seen += w->member(j) ? '1' : '0';
      events.push_back(seen);
    }
  };
  events.clear();
  auto w = Kel::make<Watched>(1);
  auto other = Kel::make<Watched>(2);
  for (int k = 0; k < 4; ++k) {
    w->memberIs(k, true);
    other->memberIs(k, true);
  }
  Looking l(w, other);
  w->memberDelAll();
  EXPECT_EQ(events, (std::vector<std::string>{"0:0111", "1:0011", "2:0001", "3:0000"}));
  EXPECT_EQ(other->memberCount(), 0u);
  w->memberIs(3, true);
  EXPECT_TRUE(w->member(3));
  EXPECT_FALSE(w->member(0));
}

TEST(Notification, NotifieeRegisteredDuringDeliveryWaitsForNextChange) {
  events.clear();
  auto w = Kel::make<Watched>(1);
  std::unique_ptr<Probe> late;
  Probe a("a", w);
  Probe b("b", w);
  a.onTagAction = [&] {
    if (!late) late = std::make_unique<Probe>("late", w);
  };
  w->tagIs(1);
  EXPECT_EQ(events, (std::vector<std::string>{"a.tag", "b.tag"}));
  events.clear();
  w->tagIs(2);
  EXPECT_EQ(events, (std::vector<std::string>{"a.tag", "b.tag", "late.tag"}));
}

TEST(Notification, NotifieeDestroyedOrSilencedDuringDeliveryIsNotCalled) {
  events.clear();
  auto w = Kel::make<Watched>(1);
  auto a = std::make_unique<Probe>("a", w);
  auto b = std::make_unique<Probe>("b", w);
  auto c = std::make_unique<Probe>("c", w);
  a->onTagAction = [&] {
    b.reset();
    c->hasNotificationActiveIs(false);
  };
  w->tagIs(1);
  EXPECT_EQ(events, std::vector<std::string>{"a.tag"});
  events.clear();
  c->hasNotificationActiveIs(true);
  a->isRegisteredNotifieeIs(false);
  w->tagIs(2);
  EXPECT_EQ(events, std::vector<std::string>{"c.tag"});
  a->isRegisteredNotifieeIs(true);
  events.clear();
  w->tagIs(3);
  EXPECT_EQ(events, (std::vector<std::string>{"c.tag", "a.tag"}));
  // Registered again during a delivery, at the same address: a new registration, first called
  // on the next change.
  a->onTagAction = nullptr;
  c->hasNotificationActiveIs(true);
  bool reRegister = true;
  c->onTagAction = [&] {
    if (!std::exchange(reRegister, false)) return;
    a->isRegisteredNotifieeIs(false);
    a->isRegisteredNotifieeIs(true);
  };
  events.clear();
  w->tagIs(4);
  EXPECT_EQ(events, std::vector<std::string>{"c.tag"});
  events.clear();
  w->tagIs(5);
  EXPECT_EQ(events, (std::vector<std::string>{"c.tag", "a.tag"}));
}

TEST(Notification, NotifierIsMovesTheRegistrationAndKeepsTheNotifierAlive) {
  events.clear();
  const long before = Kel::Entity::liveCount();
  {
    auto w1 = Kel::make<Watched>(1);
    auto w2 = Kel::make<Watched>(2);
    Probe p("p", w1);
    p.notifierIs(w2);
    w1->tagIs(1);
    w2->tagIs(1);
    EXPECT_EQ(events, std::vector<std::string>{"p.tag"});
    Watched* raw = w2.ptr();
    w2 = nullptr;  // the notifiee's reference keeps it
    EXPECT_EQ(raw->references(), 1);
    EXPECT_EQ(p.notifier()->name().string(), "w2");
  }
  EXPECT_EQ(Kel::Entity::liveCount(), before);
}

TEST(Instantiation, ReinstantiatingWithEqualParametersReturnsTheMemberAndDifferentOnesRaise) {
  const long before = Kel::Entity::liveCount();
  {
    auto owner = Kel::make<Owner>();
    auto w = Kel::make<Watched>(1);
    auto c = owner->childIs("eth0", 4u, w);
    EXPECT_TRUE(c->initialized()) << "the creator runs handleInitialized";
    EXPECT_EQ(owner->childIs("eth0", 4u, w), c);
    try {
      owner->childIs("eth0", 5u, w);
      FAIL() << "no exception";
    } catch (const Kel::NameInUseException& e) {
      EXPECT_STREQ(e.what(),
                   "Reinstantiating the pointer interface where constructor parameter attribute "
                   "_ifIndex has a different value of 5 not allowed");
    }
    EXPECT_EQ(owner->child("eth0"), c);
    EXPECT_EQ(owner->child("eth0")->ifIndex(), 4u);
    EXPECT_THROW(owner->childIs("eth0", 4u, Kel::make<Watched>(2)), Kel::NameInUseException);
    owner->childDel("eth0");
    owner->childDel("eth0");
    EXPECT_EQ(owner->childCount(), 0u);

    try {
      owner->watchedIs(nullptr);
      FAIL() << "no exception";
    } catch (const Kel::RangeException& e) {
      EXPECT_STREQ(e.what(),
                   "null _watched parameter to mutator for Test::Owner::watched not allowed\"");
    }
    struct Adapters : Owner::Notifiee {
      int changes = 0;
      void onWatched(const int&) override { ++changes; }
    } seen;
    seen.notifierIs(owner);
    KelWatched* a = owner->watchedIs(w);
    EXPECT_EQ(owner->watchedIs(w), a);
    EXPECT_EQ(owner->watched(1), a);
    EXPECT_EQ(seen.changes, 1) << "watching the same entity again is no change";
    auto w2 = Kel::make<Watched>(1);  // the same key, another entity: the adapter is replaced
    EXPECT_EQ(owner->watchedIs(w2)->notifier(), w2);
    EXPECT_EQ(seen.changes, 2);
    EXPECT_EQ(w->notifieeCount(), 0u);
    auto first = owner->singleIs("s", 1u, w);
    auto second = owner->singleIs("s", 1u, w);
    EXPECT_EQ(owner->single(), second);
  }
  EXPECT_EQ(Kel::Entity::liveCount(), before) << "the owner released its children and adapters";
}

// Names by text live apart from their entities: each entity keeps its own, also one made where
// an earlier one was freed, and the lifecycle flag beside the name's mark changes neither.
TEST(Names, EachEntityKeepsItsOwnTextAndTheLifecycleFlagLeavesItAlone) {
  for (int k = 0; k < 50; ++k) {
    auto w = Kel::make<Watched>(k);  // the heap gives the last block freed again
    ASSERT_EQ(w->name().string(), "w" + std::to_string(k));
    w->isNondestructingIs(true);
    EXPECT_TRUE(w->isNondestructing());
    EXPECT_EQ(w->name().string(), "w" + std::to_string(k));
    w->isNondestructingIs(false);
    EXPECT_FALSE(w->isNondestructing());
  }
}

TEST(Pointers, ValidPtrRefusesNullAndReferenceUnderflowAborts) {
  try {
    Kel::ValidPtr<Watched> p(static_cast<Watched*>(nullptr));
    FAIL() << "no exception";
  } catch (const Kel::Exception& e) {
    EXPECT_STREQ(e.what(), "null ValidPtr");
  }
  auto w = Kel::make<Watched>(1);
  EXPECT_EQ(Kel::ptr_cast<Kel::Dir>(Kel::Ptr<Kel::Entity>(w)), nullptr);
  EXPECT_DEATH(
      {
        const Watched* unowned = new Watched(9);  // never handed to a Ptr
        unowned->deleteRef();
      },
      "below zero");
}

}  // namespace
