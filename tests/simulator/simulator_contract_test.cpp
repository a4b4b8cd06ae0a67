// The backend contract, run against the simulated camera.
#include "SimulatorBackend.h"

namespace brix::eds::contract {

INSTANTIATE_TEST_SUITE_P(Simulator, EdsContract, ::testing::Values(brix::eds::test::simulatorBackend()),
                         [](const ::testing::TestParamInfo<Backend> &info) { return info.param.name; });

} // namespace brix::eds::contract
