#ifndef KIV_TESTS_SUPPORT_TEMP_DIR_H
#define KIV_TESTS_SUPPORT_TEMP_DIR_H

#include <string>

namespace kiv {
namespace test {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it at destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    // Path of `name` inside the directory; the file is not created.
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Whole contents of a file; throws std::runtime_error when it cannot be read.
std::string read_file(const std::string& path);
// Replaces the contents of a file; throws std::runtime_error on failure.
void write_file(const std::string& path, const std::string& bytes);

}  // namespace test
}  // namespace kiv

#endif
