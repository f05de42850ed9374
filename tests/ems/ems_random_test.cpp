// Long random runs of the registry against the model of it, with real objects: 40 modules under as
// many names, of which some register functions, some load others, some cannot be loaded; and with
// linked-in modules before them.
//
// After every call its outcome is compared, which entry points were called with which names, the
// size of the registry and the number of blocks that tag 0 holds.
//
//     RM_TEST_SEED=123            repeats a run; a failure prints its seed
//     RM_TEST_OPERATIONS=1000000  makes a longer one: the number of calls
#include "tests/models/module_model.h"
#include "tests/support/modules.h"

#include "rm.h"
#include "rm/bag.h"
#include "rm/ems.h"

#include <array>
#include <iterator>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace
{
char addresses[4096];  // each byte's is another one

const EmListEntry kEm[] = {{"linked", &addresses[0], &addresses[1], &addresses[2]}};
const IefListEntry kIef[] = {{"m38", &addresses[3]}};
const UdpListEntry kUdp[] = {{"m39", nullptr, nullptr, &addresses[4]}};
}  // namespace

void rm_getEmList(uint16_t* emCount, const EmListEntry** emList, uint16_t* iefCount,
                  const IefListEntry** iefList, uint16_t* udfCount, const UdfListEntry** udfList,
                  uint16_t* udpCount, const UdpListEntry** udpList)
{
    *emCount = std::size(kEm);
    *emList = kEm;
    *iefCount = std::size(kIef);
    *iefList = kIef;
    *udfCount = 0;
    *udfList = nullptr;
    *udpCount = std::size(kUdp);
    *udpList = kUdp;
}

namespace
{
using rmtest::Call;
using rmtest::captureStderr;
using rmtest::installModule;
using rmtest::ModuleModel;
using rmtest::ScopedFault;
using Function = ModuleModel::Function;

constexpr int kModules = 40;
constexpr int kNumbers = 44;  // the last ones have no object
constexpr long kOperations = 30'000;
constexpr uint32_t kOperationsBetweenForgetting = 4000;  // on average
const std::vector<ModuleModel::Linked> kLinked = {{"linked",
                                                   {{"ModInit", &addresses[0]},
                                                    {"ModCleanup", &addresses[1]},
                                                    {"ModDescribeFcns", &addresses[2]}}},
                                                  {"m38", {{"iefDescribeFcns", &addresses[3]}}},
                                                  {"m39", {{"udpDescribeFcns", &addresses[4]}}}};
const std::vector<std::string> kNames = {"f0",  "f1",          "f2",      "f7",
                                         "f49", "borrowed",    "ModInit", "udpDescribeFcns",
                                         "",    "exportedSum", "absent"};

std::string nameOf(int number)
{
    return (number < 10 ? "m0" : "m") + std::to_string(number);
}

int numberOf(const std::string& path)
{
    return std::stoi(ModuleModel::baseOf(path).substr(1));
}

// What a module is, by its number.
ModuleModel::Object objectOf(const std::string& path)
{
    const int number = numberOf(path);
    ModuleModel::Object object;
    object.opens = number < kModules;
    object.hasEntryPoint = number % 10 != 9;
    const auto registersMany = [&](int count) {
        for (int i = 0; i < count; ++i) {
            object.registers.push_back(
                {path, "f" + std::to_string(i), &addresses[100 + number * 60 + i]});
        }
    };
    switch (number % 10) {
        case 2:
            registersMany(1);
            break;
        case 3:
            registersMany(3);
            break;
        case 5:
            registersMany(number == 25 ? 50 : 8);
            break;
        case 6:
            object.registers.push_back(
                {"elsewhere/" + nameOf((number + 1) % kModules), "borrowed", &addresses[number]});
            break;
        case 7:
            object.loads.push_back("./" + nameOf((number + 3) % kModules));
            break;
        default:
            break;
    }
    return object;
}

class EmRandom : public rmtest::ModuleTest
{
  protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        for (int number = 0; number < kModules; ++number) {
            installModule(number % 10 == 9 ? "noentry" : "plain", "./" + nameOf(number));
        }
        rmtest::onModuleEntry([this](const char* path) {
            entered_.emplace_back(path);
            const ModuleModel::Object object = objectOf(path);
            for (const Function& function : object.registers) {
                EXPECT_EQ(
                    rm_emRegFcn(function.module.c_str(), function.name.c_str(), function.address),
                    0);
            }
            for (const std::string& other : object.loads) {
                int16_t handle = 0;
                rm_emLoad(other.c_str(), &handle);
            }
        });
    }

    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }

    std::string anyPath()
    {
        const std::string name = nameOf(static_cast<int>(below(kNumbers)));
        return (below(4) == 0 ? "./../" + directory().filename().string() + "/" : "./") + name;
    }

    // Now and then one that no module can have.
    int16_t anyHandle()
    {
        return below(8) == 0 ? static_cast<int16_t>(below(65'536))
                             : static_cast<int16_t>(below(static_cast<uint32_t>(
                                   std::max<std::size_t>(model_.slotCount(), 1))));
    }

    void load()
    {
        const std::string path = anyPath();
        const ModuleModel::Loaded expected = model_.load(path);
        int16_t handle = -77;
        EXPECT_EQ(rm_emLoad(path.c_str(), &handle), expected.status) << path;
        EXPECT_EQ(handle, expected.status == 0 ? expected.handle : -77) << path;
        EXPECT_EQ(std::exchange(entered_, {}), model_.takeEntered());
    }

    void registerFunction()
    {
        const Function function = {
            below(2) == 0 ? "other/r" + std::to_string(below(200)) : anyPath(),
            kNames.at(below(static_cast<uint32_t>(kNames.size()))),
            &addresses[below(sizeof(addresses))]};
        const int16_t expected = model_.registerFunction(function);
        EXPECT_EQ(rm_emRegFcn(function.module.c_str(), function.name.c_str(), function.address),
                  expected);
    }

    void ask()
    {
        const int16_t handle = anyHandle();
        const std::string& name = kNames.at(below(static_cast<uint32_t>(kNames.size())));
        const ModuleModel::Answer expected = model_.functionOf(handle, name);
        char untouched = 0;
        void* address = &untouched;
        const int16_t status = rm_emGetFcnAddr(handle, name.c_str(), &address);
        if (expected.exported) {
            EXPECT_EQ(status, name == "exportedSum" ? 0 : 2) << handle << ' ' << name;
            EXPECT_EQ(address != nullptr, name == "exportedSum") << handle << ' ' << name;
            return;
        }
        EXPECT_EQ(status, expected.status) << handle << ' ' << name;
        EXPECT_EQ(address, expected.foundNothing ? &untouched : expected.address)
            << handle << ' ' << name;
    }

    void unload()
    {
        const int16_t handle = anyHandle();
        const bool closes = below(10) != 0;
        const ScopedFault close({.call = Call::kDlclose, .times = closes ? 0 : rmtest::kForever});
        const int16_t expected = model_.unload(handle, closes);
        EXPECT_EQ(rm_emUnload(handle), expected) << handle;
    }

    void forget()
    {
        model_.forget();
        if (below(2) == 0) {
            rm_freeall();
        } else {
            rm_freeTagMemory(0, 0);
        }
    }

    void step()
    {
        if (below(kOperationsBetweenForgetting) == 0) {
            forget();
            return;
        }
        const uint32_t choice = below(1000);
        if (choice < 5) {
            model_.init();
            EXPECT_EQ(rm_emInit(), 0);
        } else if (choice < 350) {
            load();
        } else if (choice < 450) {
            registerFunction();
        } else if (choice < 750) {
            ask();
        } else {
            unload();
        }
    }

    void compare() const
    {
        ASSERT_EQ(ems::EmBag != nullptr, model_.isMade());
        ASSERT_EQ(rmtest::blocksOfTag0(), model_.blocks());
        if (ems::EmBag != nullptr) {
            ASSERT_EQ(ems::EmBag->slotCount, model_.slotCount());
            ASSERT_EQ(ems::EmBag->usedCount, model_.usedCount());
        }
    }

    std::mt19937_64 random_{rmtest::seedOfThisRun()};
    ModuleModel model_{kLinked, objectOf};

  private:
    std::vector<std::string> entered_;
};

TEST_F(EmRandom, DoesWhatTheModelSays)
{
    SCOPED_TRACE("RM_TEST_SEED=" + std::to_string(rmtest::seedOfThisRun()));
    const long operations = rmtest::operationsOfThisRun(kOperations);
    std::size_t largest = 0;
    captureStderr([&] {
        for (long i = 0; i < operations && !HasFailure(); ++i) {
            step();
            compare();
            largest = std::max(largest, model_.slotCount());
        }
    });
    EXPECT_GT(largest, 112U) << "the run was to make the registry grow to twice its size";
}
}  // namespace
