// A tiny C++17 program built against an installed libkova-api.
#include <kova/kova.hpp>

#include <cstdio>

int main() {
  // An empty callable is refused without touching the bus.
  const kova::Result<kova::Subscription> none = kova::on_video_start(std::function<void(int)>());
  std::printf("consumer (C++): an empty callable gives error %d\n", none.error());
  return none.ok() ? 1 : 0;
}
