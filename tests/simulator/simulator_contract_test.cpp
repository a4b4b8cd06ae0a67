// The backend contract, run against the simulated camera.
#include "ContractSuite.h"
#include "SimulatorBackend.h"

namespace brix::eds::contract {

INSTANTIATE_TEST_SUITE_P(Simulator, EdsContract, ::testing::Values(brix::eds::simtest::simulatorBackend()),
                         [](const ::testing::TestParamInfo<Backend> &info) { return info.param.name; });

} // namespace brix::eds::contract
