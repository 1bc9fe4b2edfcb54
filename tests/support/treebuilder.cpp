#include "tests/support/treebuilder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "tests/support/testutil.h"

void MakeTree(const std::string& base, const std::vector<TreeItem>& nodes) {
    for (const TreeItem& n : nodes) {
        std::string path = base + "/" + n.path;
        int rc = 0;
        switch (n.kind) {
            case TreeItem::DIR: rc = mkdir(path.c_str(), 0755) || chmod(path.c_str(), 0755); break;
            case TreeItem::FILE: WriteFile(path, n.arg); rc = PathExists(path) ? 0 : -1; break;
            case TreeItem::SYMLINK: rc = symlink(n.arg.c_str(), path.c_str()); break;
            case TreeItem::HARDLINK: rc = link((base + "/" + n.arg).c_str(), path.c_str()); break;
            case TreeItem::FIFO: rc = mkfifo(path.c_str(), 0644); break;
            case TreeItem::SPARSE: {
                int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
                rc = fd < 0 ? -1 : ftruncate(fd, static_cast<off_t>(n.size));
                if (fd >= 0) close(fd);
                break;
            }
        }
        if (rc != 0) throw std::runtime_error("cannot make " + path + ": " + strerror(errno));
    }
}

std::string MakeChain(const std::string& base, const std::string& name, int levels) {
    std::string path = base;
    int fd = open(base.c_str(), O_RDONLY | O_DIRECTORY);
    for (int i = 0; i < levels && fd >= 0; i++) {
        path += "/" + name;
        int next = mkdirat(fd, name.c_str(), 0755) == 0 ? openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY) : -1;
        close(fd);
        fd = next;
    }
    if (fd < 0) throw std::runtime_error("cannot make " + path + ": " + strerror(errno));
    close(fd);
    return path;
}
