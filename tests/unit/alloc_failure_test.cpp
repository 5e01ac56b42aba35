#include <gtest/gtest.h>

#include <set>
#include <string>

#include "alloc_failure.h"
#include "daxo_internal.h"
#include "fake_mqtt.h"
#include "temp_dir.h"

namespace {

TEST(AllocationFailure, NewClientReportsTheFailedStepAndLeaksNothing) {
  TempDir dir;
  std::string conf = dir.Write("client.conf", ValidConfig(dir) + "ClientName kitchen\n");
  const std::set<DAXO_Error> stepCodes = {DAXO_Error_NoMemory, DAXO_Error_ConfigReadFailed,
                                          DAXO_Error_ThreadCreate};
  std::set<DAXO_Error> seen;
  struct Result {
    DAXO_Client* client;
    DAXO_Error err;
  };
  long allocations = alloc_failure::ForEachAllocationFailure(
      [&] {
        Result r{nullptr, DAXO_Error_Unknown};
        r.client = DAXO_NewClient(conf.c_str(), nullptr, &r.err);
        return r;
      },
      [&](Result r, long n, bool fired) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        if (r.client != nullptr) {
          // stdio absorbs a failed buffer allocation by reading unbuffered.
          EXPECT_EQ(r.err, DAXO_Error_Success);
          EXPECT_STREQ(r.client->clientName, "kitchen");
          DAXO_DeleteClient(r.client);
          return;
        }
        EXPECT_TRUE(fired);
        EXPECT_TRUE(stepCodes.count(r.err)) << "code " << r.err;
        seen.insert(r.err);
      });
  EXPECT_GT(allocations, 5);
  EXPECT_TRUE(seen.count(DAXO_Error_NoMemory));
  EXPECT_TRUE(seen.count(DAXO_Error_ConfigReadFailed));
}

TEST(AllocationFailure, HarnessFailsExactlyTheChosenAllocation) {
  void* blocks[3];
  {
    alloc_failure::Scope scope(1);
    for (void*& b : blocks) b = malloc(16);
    EXPECT_TRUE(scope.Fired());
  }
  EXPECT_NE(blocks[0], nullptr);
  EXPECT_EQ(blocks[1], nullptr);
  EXPECT_NE(blocks[2], nullptr);
  for (void* b : blocks) free(b);
}

}  // namespace
