// A plain V4L2 host run under the wrapper script: opens the node given, reads the format
// like the device does (single-plane, else multi-planar) and requests buffers, retrying
// once. Prints what it saw on one line.
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

int main(int argc, char** argv) {
    const int fd = argc == 2 ? open(argv[1], O_RDWR) : -1;
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    if (fd < 0 || ioctl(fd, VIDIOC_G_FMT, &f) == 0) {
        return 1;  // the board was set up multi-planar only
    }
    f.type = V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
    v4l2_requestbuffers r{};
    r.count = 6;
    r.type = f.type;
    r.memory = V4L2_MEMORY_MMAP;
    int firstError = 0;
    if (ioctl(fd, VIDIOC_G_FMT, &f) != 0) {
        return 1;
    }
    if (ioctl(fd, VIDIOC_REQBUFS, &r) != 0) {
        firstError = errno;
        if (ioctl(fd, VIDIOC_REQBUFS, &r) != 0) {
            return 1;
        }
    }
    printf("sizeimage %u reqbufs %d buffers %u\n", f.fmt.pix_mp.plane_fmt[0].sizeimage, firstError,
           r.count);
    close(fd);
    return 0;
}
