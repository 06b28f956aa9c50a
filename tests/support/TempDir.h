#ifndef THRIFTUSB_TESTS_SUPPORT_TEMPDIR_H
#define THRIFTUSB_TESTS_SUPPORT_TEMPDIR_H

#include <string>

namespace thriftusb {
namespace test {

/** A private directory under $TMPDIR (or /tmp), removed with all it holds on destruction. */
class TempDir {
public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  /** Absolute path of the directory. */
  const std::string& path() const { return path_; }

  /** Path of @p name inside the directory (not created). */
  std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
  std::string path_;
};

} // namespace test
} // namespace thriftusb

#endif
