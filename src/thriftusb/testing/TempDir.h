#ifndef THRIFTUSB_TESTING_TEMPDIR_H
#define THRIFTUSB_TESTING_TEMPDIR_H

#include <string>

namespace thriftusb {
namespace testing {

/** A private directory under $TMPDIR (or /tmp), removed with all it holds on destruction. */
class TempDir {
public:
  /**
   * Makes the directory.
   *
   * @throws std::system_error when it cannot be made
   */
  TempDir();

  /** Removes the directory and everything in it. */
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  /** @return the absolute path of the directory */
  const std::string& path() const { return path_; }

  /**
   * @param name  a file name
   * @return the path of @p name inside the directory (nothing is created)
   */
  std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
  std::string path_;
};

} // namespace testing
} // namespace thriftusb

#endif
