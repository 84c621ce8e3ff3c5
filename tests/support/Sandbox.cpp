#include "tests/support/Sandbox.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

namespace krv::test {

namespace {

bool g_inSandbox = false;

Status mountOrFail(const char* source, const char* target, const char* type, unsigned long flags,
                   const std::string& data) {
  if (::mount(source, target, type, flags, data.empty() ? nullptr : data.c_str()) != 0) {
    return Error::fromErrno(std::string("mount ") + target);
  }
  return {};
}

Status makeFolder(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return Error::fromErrno("mkdir " + path);
  return {};
}

// An overlay over `folder` whose upper and work folders live below `scratch`.
Status overlay(const std::string& folder, const std::string& scratch, const std::string& tag) {
  const std::string upper = scratch + "/" + tag + "-upper";
  const std::string work = scratch + "/" + tag + "-work";
  KRV_TRY_VOID(makeFolder(upper));
  KRV_TRY_VOID(makeFolder(work));
  const std::string options = "lowerdir=" + folder + ",upperdir=" + upper + ",workdir=" + work;
  return mountOrFail("overlay", folder.c_str(), "overlay", 0, options);
}

}  // namespace

Status enterPrivateSandbox() {
  if (g_inSandbox) return {};
  if (::unshare(CLONE_NEWNS) != 0) return Error::fromErrno("unshare");
  // Nothing done here may propagate back to the host's mounts.
  KRV_TRY_VOID(mountOrFail(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, {}));

  // The scratch tmpfs for the overlays is mounted on /run first (its mount point must exist) and
  // then moved out of sight below the fresh /run.
  KRV_TRY_VOID(mountOrFail("krv-scratch", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755"));
  const std::string scratch = "/run";
  KRV_TRY_VOID(overlay("/etc", scratch, "etc"));
  KRV_TRY_VOID(overlay("/var/lib", scratch, "var-lib"));
  // A fresh /run on top hides the scratch folders (the overlays keep using them).
  KRV_TRY_VOID(mountOrFail("krv-run", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755"));
  KRV_TRY_VOID(mountOrFail("krv-tmp", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777"));
  g_inSandbox = true;
  return {};
}

bool inPrivateSandbox() { return g_inSandbox; }

}  // namespace krv::test
