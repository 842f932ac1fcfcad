// Sets the OpenMP team size of the parallel regions that follow and puts
// the previous size back when it goes out of scope, also when an assertion
// leaves the test early.
#ifndef ZORVANE_TESTS_SUPPORT_TEAM_SIZE_H_
#define ZORVANE_TESTS_SUPPORT_TEAM_SIZE_H_

#include <omp.h>

namespace zorvane {
namespace testing {

class ScopedTeamSize {
 public:
  explicit ScopedTeamSize(int threads) : saved_(omp_get_max_threads()) {
    omp_set_num_threads(threads);
  }
  ScopedTeamSize(const ScopedTeamSize&) = delete;
  ScopedTeamSize& operator=(const ScopedTeamSize&) = delete;
  ~ScopedTeamSize() { omp_set_num_threads(saved_); }

 private:
  int saved_;
};

}  // namespace testing
}  // namespace zorvane

#endif  // ZORVANE_TESTS_SUPPORT_TEAM_SIZE_H_
