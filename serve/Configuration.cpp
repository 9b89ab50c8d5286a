#include "serve/Configuration.h"

namespace serve {

Configuration LoadConfiguration(const std::filesystem::path& path) {
  throw ConfigurationError(path.string() + ": configurations are not read yet");
}

}  // namespace serve
