# Imports counterfeed::counterfeed, the library with its exported operations.
include(${CMAKE_CURRENT_LIST_DIR}/counterfeed-targets.cmake)
