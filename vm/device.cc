// The UFS device of the phone in the virtual machine: answers the commands that the kernel's SCSI
// target hands to user space (target_core_user), as the phone's description says, by the code of
// the simulated phone's device. Started by init, ends with the machine. What the device keeps lies
// in the phone's directory, which outlives the machine.
//   vm_device UIO MAP_SIZE PHONE [CUT]   CUT: the power ends when WRITE BUFFER has come
//                                        ("command") or the device has carried it out ("download")
//   vm_device PHONE                      only checks that this machine can be the phone
#include "simphone/device/device.h"
#include "simphone/files.h"
#include "simphone/text.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/types.h>
#include <scsi/scsi.h>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace tcmu { // a C header, with an iovec of its own
#include <linux/target_core_user.h>
}

namespace {

const uint32_t BLOCK_SIZE = 4096;
const uint32_t BLOCKS = 4096;

struct Device {
    std::string phone;
    std::string cut;
    std::string medium = std::string(size_t{BLOCK_SIZE} * BLOCKS, '\0');
};

// One command: its data (out: as sent; in: as returned), and the answer.
struct Command {
    const uint8_t* cdb;
    std::string data;
    uint8_t status = 0;
    uint8_t sense[TCMU_SENSE_BUFFERSIZE] = {};
};

[[noreturn]] void Stop(const std::string& text) {
    fprintf(stderr, "vm_device: %s\n", text.c_str());
    _exit(1);
}

// At once: nothing is synced.
void EndPower(const Device& device) {
    std::ofstream(device.phone + "/power-cut") << std::flush;
    std::ofstream("/kernel/proc/sysrq-trigger") << "b" << std::flush;
}

// Stops at what this machine cannot be: better no phone than another one.
Description ReadPhone(const Device& device) {
    const Description phone = ReadDescription(device.phone + "/phone.toml");
    if (!phone.ufs || !phone.faults.empty()) {
        Stop("vm/rehearse supports only UFS phones without faults");
    }
    if (phone.maxHwSectorsKb != 0 && phone.maxHwSectorsKb != 1024) {
        Stop("this machine's host takes 1024 KiB in one request: max_hw_sectors_kb");
    }
    for (const DeviceAnswer& answer : phone.answers) {
        if (answer.kind == DeviceAnswer::Kind::HOST_STATUS ||
            answer.kind == DeviceAnswer::Kind::DRIVER_STATUS) {
            Stop("write_buffer: only the kernel can give a host or driver status");
        }
    }
    return phone;
}

void Refuse(Command& command, uint8_t asc) {
    command.status = CHECK_CONDITION << 1;
    command.sense[0] = 0x70; // SPC: fixed format
    command.sense[2] = ILLEGAL_REQUEST;
    command.sense[7] = 10;
    command.sense[12] = asc;
}

// How many requests of this run requests.log has: init writes the line "run" ahead of them.
size_t RequestsBefore(const std::string& log) {
    size_t requests = 0;
    std::ifstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        requests = line == "run" ? 0 : requests + 1;
    }
    return requests;
}

void Log(const std::string& log, const std::string& line) {
    if (!(std::ofstream(log, std::ios::app) << line << std::flush)) {
        Stop(log + ": cannot be written");
    }
}

// Tells in the last block of the phone's disk, behind its file system, that a request has come:
// that has its place among the disk's writes.
void MarkRequest() {
    alignas(4096) static const char block[4096] = "request";
    const int disk = open("/dev/vda", O_WRONLY | O_DIRECT | O_CLOEXEC);
    if (disk < 0 || lseek(disk, -off_t{sizeof(block)}, SEEK_END) < 0 ||
        write(disk, block, sizeof(block)) != sizeof(block)) {
        Stop(std::string("/dev/vda: ") + strerror(errno));
    }
    close(disk);
}

void WriteBuffer(const Device& device, Command& command) {
    MarkRequest();
    uint8_t cdb[10];
    memcpy(cdb, command.cdb, sizeof(cdb));
    const std::string log = device.phone + "/requests.log";
    const std::string text = "WRITE BUFFER cdb=" + Hex(cdb, sizeof(cdb)) +
                             " data=" + std::to_string(command.data.size()) + " -> ";
    if (device.cut == "command") {
        Log(log, text + "power cut\n");
        EndPower(device);
    }
    const Phone phone = {device.phone, ReadPhone(device)};
    sg_io_hdr request = {};
    request.interface_id = 'S';
    request.cmdp = cdb;
    request.cmd_len = sizeof(cdb);
    request.dxfer_direction = command.data.empty() ? SG_DXFER_NONE : SG_DXFER_TO_DEV;
    request.dxferp = command.data.data();
    request.dxfer_len = static_cast<unsigned>(command.data.size());
    request.sbp = command.sense;
    request.mx_sb_len = sizeof(command.sense);
    Reply reply;
    const int error = AnswerScsi(phone, RequestsBefore(log), O_RDWR, request, reply);
    if (error != 0) {
        Stop(std::string("WRITE BUFFER: ") + strerror(error));
    }
    command.status = request.status;
    Log(log, text + reply.text + "\n");
    if (device.cut == "download") {
        EndPower(device);
    }
}

uint32_t BigEndian(const uint8_t* bytes, int count) {
    uint32_t value = 0;
    for (int i = 0; i < count; i++) {
        value = value << 8 | bytes[i];
    }
    return value;
}

// A field of a standard INQUIRY, filled up with blanks.
std::string Field(const std::string& text, size_t size) {
    std::string field = text.substr(0, text.find('\n'));
    field.resize(size, ' ');
    return field;
}

std::string Inquiry(const Device& device) {
    const std::string revision = WholeFile(device.phone + "/proc/bootdevice/rev");
    const char head[8] = {0, 0, 6, 2, 31, 0, 0, 2}; // SPC-4 disk, 36 bytes, command queuing
    return std::string(head, sizeof(head)) + Field("UFS", 8) +
           Field(ReadPhone(device).productName, 16) + Field(revision, 4);
}

std::string ReadCapacity(int size) {
    std::string data(static_cast<size_t>(size), '\0');
    const size_t last = size == 8 ? 0 : 4; // READ CAPACITY(16) has 8 bytes for the last block
    data[last + 2] = static_cast<char>((BLOCKS - 1) >> 8);
    data[last + 3] = static_cast<char>((BLOCKS - 1) & 0xFF);
    data[last + 6] = static_cast<char>(BLOCK_SIZE >> 8);
    return data;
}

// READ(10) and WRITE(10); the medium does not outlive the machine.
void Transfer(Device& device, Command& command, uint32_t block, uint32_t blocks) {
    const size_t size = size_t{blocks} * BLOCK_SIZE;
    if (block > BLOCKS || blocks > BLOCKS - block || size != command.data.size()) {
        Refuse(command, 0x21); // logical block address out of range
        return;
    }
    const size_t offset = size_t{block} * BLOCK_SIZE;
    if (command.cdb[0] == WRITE_10) {
        device.medium.replace(offset, size, command.data);
    } else {
        command.data = device.medium.substr(offset, size);
    }
}

void AnswerCommand(Device& device, Command& command) {
    const uint8_t* cdb = command.cdb;
    switch (cdb[0]) {
    case TEST_UNIT_READY:
    case SYNCHRONIZE_CACHE:
    case START_STOP:
        break;
    case INQUIRY:
        if (cdb[1] & 1) {
            Refuse(command, 0x24); // no vital product data
        } else {
            command.data = Inquiry(device);
        }
        break;
    case READ_CAPACITY:
        command.data = ReadCapacity(8);
        break;
    case 0x9E: // READ CAPACITY(16)
        command.data = ReadCapacity(32);
        break;
    case MODE_SENSE:
        command.data = std::string("\3\0\0\0", 4); // no page, not write protected
        break;
    case READ_10:
    case WRITE_10:
        Transfer(device, command, BigEndian(cdb + 2, 4), BigEndian(cdb + 7, 2));
        break;
    case WRITE_BUFFER:
        WriteBuffer(device, command);
        break;
    default:
        Refuse(command, 0x20); // invalid command operation code
    }
}

void Serve(Device& device, char* base, tcmu::tcmu_cmd_entry& entry) {
    Command command;
    command.cdb = reinterpret_cast<const uint8_t*>(base + entry.req.cdb_off);
    for (uint32_t i = 0; i < entry.req.iov_cnt; i++) {
        const tcmu::iovec& piece = entry.req.iov[i];
        command.data.append(base + reinterpret_cast<uintptr_t>(piece.iov_base), piece.iov_len);
    }
    // The answer waits for files of the host. The clock of a machine that has nothing to do may run
    // ahead, past the kernel's limit for a command: so there is something to do.
    std::atomic<bool> answered{false};
    std::thread busy([&answered] {
        while (!answered) {
        }
    });
    try {
        AnswerCommand(device, command);
    } catch (const std::exception& wrong) {
        Stop(wrong.what());
    }
    answered = true;
    busy.join();
    if (command.status == BUSY << 1) {
        sleep(1); // the kernel repeats the command until the time is over that the tool gave it
    }
    size_t given = 0;
    for (uint32_t i = 0; i < entry.req.iov_cnt && given < command.data.size(); i++) {
        const tcmu::iovec& piece = entry.req.iov[i];
        const size_t count = std::min(piece.iov_len, command.data.size() - given);
        memcpy(base + reinterpret_cast<uintptr_t>(piece.iov_base), command.data.data() + given,
               count);
        given += count;
    }
    entry.rsp.scsi_status = command.status;
    memcpy(entry.rsp.sense_buffer, command.sense, sizeof(command.sense));
}

// What the kernel has put into the ring since the last time, each in its turn.
void ServeAll(Device& device, char* base) {
    auto& mailbox = *reinterpret_cast<tcmu::tcmu_mailbox*>(base);
    while (mailbox.cmd_tail != __atomic_load_n(&mailbox.cmd_head, __ATOMIC_ACQUIRE)) {
        char* place = base + mailbox.cmdr_off + mailbox.cmd_tail;
        auto& entry = *reinterpret_cast<tcmu::tcmu_cmd_entry*>(place);
        const uint32_t length = tcmu::tcmu_hdr_get_len(entry.hdr.len_op);
        if (tcmu::tcmu_hdr_get_op(entry.hdr.len_op) == tcmu::TCMU_OP_CMD) {
            Serve(device, base, entry);
        }
        __atomic_store_n(&mailbox.cmd_tail, (mailbox.cmd_tail + length) % mailbox.cmdr_size,
                         __ATOMIC_RELEASE);
    }
}

} // namespace

int main(int argc, char** argv) {
    Device device;
    if (argc == 2) {
        device.phone = argv[1];
        (void)ReadPhone(device);
        return 0;
    }
    if (argc < 4) {
        Stop("usage: vm_device UIO MAP_SIZE PHONE [CUT]");
    }
    device.phone = argv[3];
    device.cut = argc > 4 ? argv[4] : "";
    const int fd = open(argv[1], O_RDWR | O_CLOEXEC);
    void* map = fd < 0 ? MAP_FAILED
                       : mmap(nullptr, strtoul(argv[2], nullptr, 0), PROT_READ | PROT_WRITE,
                              MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) {
        Stop(std::string(argv[1]) + ": " + strerror(errno));
    }
    (void)ReadPhone(device);
    if (daemon(1, 1) != 0) { // init goes on from here, the machine has its device
        Stop(std::string("daemon: ") + strerror(errno));
    }
    for (;;) {
        uint32_t events = 0;
        ServeAll(device, static_cast<char*>(map));
        // To write: these commands are answered. To read: wait for more.
        if (write(fd, &events, sizeof(events)) != sizeof(events) ||
            read(fd, &events, sizeof(events)) != sizeof(events)) {
            Stop(std::string(argv[1]) + ": " + strerror(errno));
        }
    }
}
