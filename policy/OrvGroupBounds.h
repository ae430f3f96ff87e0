#pragma once
#include <json/json.h>
#include <stdint.h>

#include <string>
#include <vector>

// Bounds on what one action set can make the executor do: how deep groups nest, and how many
// method objects a set runs once every group in it is expanded. Groups that call each other
// twice per level grow exponentially: 20 levels already run a million methods. Computed
// without recursion, so any document can be checked on any stack.
class OrvGroupBounds {
  public:
    static constexpr int kMaxNesting = 256;
    static constexpr uint64_t kMaxMethods = 100000;

    struct Finding {
        std::string location;  // the set, as a dotted path ("policy_group.g", "A.action.run.policy")
        std::string message;   // names the chain or the set and its size
    };

    // What exceeds a limit: the deepest group chain if it is too deep, then every set whose
    // expansion is too large (groups only where no group over the limit calls them). Empty
    // when the document is within bounds. Group loops are left to the cycle check.
    static std::vector<Finding> check(const Json::Value& root);

  private:
    struct Group;
    static std::vector<Group> expandGroups(const Json::Value& groups);
};
