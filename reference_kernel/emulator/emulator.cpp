#include "reference_kernel/emulator/emulator.h"

#include <thread>
#include <utility>

#include "reference_kernel/emulator/kernel.h"
#include "reference_kernel/emulator/server.h"

namespace tavik_wlan {

struct Emulator::Service {
  Service(const std::string& path, Observer observer)
      : kernel(std::move(observer)), server(path, kernel), thread([this] { server.run(); }) {}
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  ~Service() {
    server.stop();
    thread.join();
  }

  Kernel kernel;
  Server server;
  std::thread thread;
};

Emulator::Emulator(std::string path, Observer observer)
    : path_(std::move(path)), service_(std::make_unique<Service>(path_, std::move(observer))) {}

Emulator::~Emulator() = default;

std::string Emulator::state() const { return service_->kernel.state(); }

void Emulator::inject(const Faults& faults) { service_->kernel.inject(faults); }

}  // namespace tavik_wlan
