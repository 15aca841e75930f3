// A worker with the engine's calls, as the server starts it.
#include <cstdlib>

#include "backend/work/engine_calls.h"
#include "backend/work/worker.h"

int main(int, char** argv) {
  return tarnbackend::RunWorker(std::atoi(argv[1]), tarnbackend::EngineCalls());
}
