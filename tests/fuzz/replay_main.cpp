// Runs a fuzz target over files, without libFuzzer: every file named, and
// every file in every directory named, once, in name order.  This is how the
// corpora in the repository run as ordinary tests, in the sanitized build
// too.  Fails when no input was found at all.
#include <dirent.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string>
#include <vector>
#include <algorithm>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

void collect(const std::string &path, std::vector<std::string> *files)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        fprintf(stderr, "replay: cannot stat %s\n", path.c_str());
        exit(2);
    }
    if (!S_ISDIR(st.st_mode)) {
        files->push_back(path);
        return;
    }
    DIR *d = opendir(path.c_str());
    std::vector<std::string> names;
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.')
            names.push_back(e->d_name);
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string &n : names)
        collect(path + "/" + n, files);
}

std::vector<uint8_t> read_all(const std::string &path)
{
    std::vector<uint8_t> data;
    FILE *f = fopen(path.c_str(), "rb");
    if (!f) {
        fprintf(stderr, "replay: cannot open %s\n", path.c_str());
        exit(2);
    }
    uint8_t buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0)
        data.insert(data.end(), buf, buf + n);
    fclose(f);
    return data;
}

}  // namespace

int main(int argc, char **argv)
{
    std::vector<std::string> files;
    for (int i = 1; i < argc; i++)
        collect(argv[i], &files);
    LLVMFuzzerInitialize(&argc, &argv);
    for (const std::string &f : files) {
        std::vector<uint8_t> data = read_all(f);
        // A copy of exactly the file's size, so ASan catches reads past it.
        uint8_t *copy = static_cast<uint8_t *>(malloc(data.size() ? data.size() : 1));
        if (!data.empty())
            memcpy(copy, data.data(), data.size());
        LLVMFuzzerTestOneInput(copy, data.size());
        free(copy);
    }
    fprintf(stderr, "replay: %zu inputs ran\n", files.size());
    return files.empty() ? 1 : 0;
}
