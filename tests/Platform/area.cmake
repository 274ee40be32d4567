# The dispatch runtime's internal classes are tested directly. The library exports only its
# public API, so their sources are compiled into this binary as well.
target_sources(${area_target} PRIVATE
    ${PROJECT_SOURCE_DIR}/src/Platform/Dispatch/ThreadName.cpp
    ${PROJECT_SOURCE_DIR}/src/Platform/Dispatch/TimerThread.cpp
    ${PROJECT_SOURCE_DIR}/src/Platform/Dispatch/WorkerPool.cpp)
target_include_directories(${area_target} PRIVATE ${PROJECT_SOURCE_DIR}/src/Platform)
