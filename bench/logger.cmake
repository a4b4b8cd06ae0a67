# spdlog is only the yardstick of the logger benchmark.
find_package(spdlog REQUIRED)
target_link_libraries(logger_bench PRIVATE spdlog::spdlog)
