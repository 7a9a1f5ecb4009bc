cmake_minimum_required(VERSION 3.25)
project(consumer LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(kelvane 0.1 REQUIRED)
add_executable(consumer consumer.cpp)
target_link_libraries(consumer PRIVATE kelvane::kelvane kelvane::apply)
add_executable(teller teller.cpp)
target_link_libraries(teller PRIVATE kelvane::writer)

# The other object formats alone, without the engine.
add_executable(formats_consumer formats_consumer.cpp)
target_link_libraries(formats_consumer PRIVATE kelvane::formats)
