// A plain V4L2 host run under the wrapper script: opens the node given, expects a
// multi-planar-only format, requests buffers (retrying once) and prints what it saw.
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
    v4l2_requestbuffers r{};
    r.count = 6;
    r.type = V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
    r.memory = V4L2_MEMORY_MMAP;
    if (fd < 0 || ioctl(fd, VIDIOC_G_FMT, &f) == 0) {
        return 1;
    }
    f.type = r.type;
    const int first = ioctl(fd, VIDIOC_REQBUFS, &r) == 0 ? 0 : errno;
    if (ioctl(fd, VIDIOC_G_FMT, &f) != 0 || (first != 0 && ioctl(fd, VIDIOC_REQBUFS, &r) != 0)) {
        return 1;
    }
    printf("sizeimage %u reqbufs %d buffers %u\n", f.fmt.pix_mp.plane_fmt[0].sizeimage, first,
           r.count);
    return close(fd) == 0 ? 0 : 1;
}
