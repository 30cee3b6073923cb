#ifndef CORE_COMMON_RPC_ALLOCATION_COUNT_TEST_SUPPORT_H_
#define CORE_COMMON_RPC_ALLOCATION_COUNT_TEST_SUPPORT_H_

namespace varnic::testing {

// Counts what the whole process allocates and frees with new and delete from its construction on.
// Needs the global operators of allocation_count_test_support.cc in the program.
class AllocationCount {
 public:
  AllocationCount();

  long made() const;
  long freed() const;
  // What was made and not freed, minus what was freed and made earlier.
  long live() const { return made() - freed(); }

 private:
  long made_before_;
  long freed_before_;
};

}  // namespace varnic::testing

#endif  // CORE_COMMON_RPC_ALLOCATION_COUNT_TEST_SUPPORT_H_
