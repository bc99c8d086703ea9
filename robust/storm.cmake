# The storm and the soak. They link the static form, because they read the counters after a stop and the soak sets the
# clock; the storm runs under a sanitizer. scripts/storm and scripts/soak run them.
add_library(robust_calls STATIC calls.cpp)
target_link_libraries(robust_calls PUBLIC harness fxm_static fxm_snapshot PRIVATE fxm_warnings)

foreach(name storm soak)
    add_executable(${name} ${name}.cpp)
    target_link_libraries(${name} PRIVATE robust_calls fxm_warnings)
endforeach()
