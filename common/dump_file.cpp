// One line appended to a dump file. The file is opened for each line, so that
// it may be removed or emptied at any time by anyone.
#include "common/dump_file.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/io.h"

inline namespace TTYLINE_FACE
{

constexpr off_t DUMP_FILE_LIMIT = 1048576;

int dump_file_append(const char *path, const char *line)
{
    struct stat status;

    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0777);
    if (fd < 0) {
        return -1;
    }
    if (stat(path, &status) == 0 && status.st_size > DUMP_FILE_LIMIT) {
        // A file that cannot be emptied still takes the line.
        const int ignored = ftruncate(fd, 0);
        static_cast<void>(ignored);
    }
    tty_write(fd, line, static_cast<int>(strlen(line)));
    close(fd);
    return 0;
}

} // namespace TTYLINE_FACE
