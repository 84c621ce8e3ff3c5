#include "platform/KernelValues.h"

#include <fcntl.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>

#include "foundation/System.h"

namespace krv {

KernelValues::KernelValues(HostRoot root) : m_root(std::move(root)) {}

Result<std::vector<std::string>> KernelValues::pathComponentsOf(const std::string& name) {
  std::vector<std::string> components;
  std::string component;
  for (std::size_t i = 0; i <= name.size(); ++i) {
    if (i == name.size() || name[i] == '.' || name[i] == '/') {
      // "." separates, so a ".." component can only come with "/" separators: "a/../b".
      if (component.empty() || component == "..") return Error::posix(ENOENT, "setting name");
      components.push_back(std::move(component));
      component.clear();
    } else if (name[i] == '\0') {
      return Error::posix(ENOENT, "setting name");
    } else {
      component += name[i];
    }
  }
  return components;
}

Status KernelValues::set(const std::string& name, std::int64_t value) const {
  KRV_TRY(std::vector<std::string> components, pathComponentsOf(name));
  KRV_TRY(UniqueFd folder, sys::open(m_root.path(kSettingsFolder), O_PATH | O_DIRECTORY));
  for (std::size_t i = 0; i + 1 < components.size(); ++i) {
    KRV_TRY(folder,
            sys::openAt(folder.get(), components[i].c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW));
  }
  // Non-blocking: nothing in that place may hold the command up.
  KRV_TRY(UniqueFd setting, sys::openAt(folder.get(), components.back().c_str(),
                                        O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  char text[32];
  const int length = std::snprintf(text, sizeof text, "%" PRId64 "\n", value);
  KRV_TRY(std::size_t count,
          sys::write(setting.get(), std::span(reinterpret_cast<const std::uint8_t*>(text),
                                              static_cast<std::size_t>(length))));
  if (count != static_cast<std::size_t>(length)) return Error::posix(EIO, "write");
  return {};
}

}  // namespace krv
