#!/usr/bin/env python3
"""The outside of the emulated board: boots it, runs commands on it, moves its lines, ends it.

usage: board.py start STATE INITRAMFS                boots a board and leaves it running
       board.py run [--limit S] STATE COMMAND...     runs a command there; has its output and status
       board.py stop STATE                           switches it off

STATE is a directory: it has the board's address, its console and the log of this program. A board
that nobody asks for anything switches itself off after a while, as it does when it is lost or has
run for too long. README.md beside this file tells what a board offers to its tests.
"""

import argparse
import asyncio
import ctypes
import json
import os
import secrets
import select
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import traceback
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[2]
RUNNERS = 6  # commands that run at the same time; most tests wait for something most of the time
BOOT_LIMIT_S = 120
IDLE_LIMIT_S = 120
LIFE_LIMIT_S = 3600
ANSWER_LIMIT_S = 5
STATUS_LOST = 125  # the command's own status is not known

# Same for the board and for the device tree that is made for it.
MACHINE = ["-M", "virt", "-cpu", "cortex-a53", "-smp", "2", "-m", "1024"]
EMULATOR = ["qemu-system-aarch64", "-nodefaults", "-nic", "none", "-display", "none", *MACHINE]
# A kernel at a random address also changes its page tables at each system call, for which the
# emulator forgets what it knows of the memory: twice the time for a program that calls it often.
CHEAP = "nokaslr"
LED_LINE = 6  # of the GPIO chip; 3 has the power key, which is taken away
SDHCI_HOST_CONTROL = 0x28  # host control register of an SD host controller: bit 0 is the LED
PL061_ALL_DATA = 0x3FC  # PL061 manual, 3.3.1: the address bits 9 to 2 select the lines


def quiet_run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=30).stdout


def make_device_tree(path):
    """The emulator's own tree with a LED on a GPIO line. Returns where the GPIO chip's registers are."""
    quiet_run(*EMULATOR, "-machine", f"dumpdtb={path}")
    chip = next(n for n in quiet_run("fdtget", "-l", path, "/").split() if n.startswith("pl061@"))
    phandle = quiet_run("fdtget", "-t", "x", path, f"/{chip}", "phandle").strip()
    quiet_run("fdtput", "-r", path, "/gpio-keys")
    quiet_run("fdtput", "-p", "-c", path, "/leds/status")
    quiet_run("fdtput", "-t", "s", path, "/leds", "compatible", "gpio-leds")
    quiet_run("fdtput", "-t", "s", path, "/leds/status", "label", "status:green")
    quiet_run("fdtput", "-t", "x", path, "/leds/status", "gpios", phandle, str(LED_LINE), "0")
    return int(chip.split("@")[1], 16)


def end_with_parent():
    """For a child before its exec: it does not outlive this program, however that ends."""
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


class Link:
    """A socket on which the emulator calls back, so that nothing is tried twice."""

    def __init__(self, path):
        self.path = path
        self._connected = asyncio.get_running_loop().create_future()

    async def listen(self):
        self._server = await asyncio.start_unix_server(self._on_connected, self.path)

    def _on_connected(self, reader, writer):
        self.reader, self.writer = reader, writer
        self._connected.set_result(None)

    async def connected(self):
        await self._connected

    async def send(self, text):
        self.writer.write(text.encode())
        await self.writer.drain()

    async def line(self):
        line = await self.reader.readline()
        if not line:
            raise ConnectionError(f"the emulator has closed {os.path.basename(self.path)}")
        return line.decode(errors="replace").rstrip("\r\n")


class Board:
    def __init__(self, state, initramfs, work):
        self.state, self.initramfs, self.work = state, initramfs, work
        self.emulator = None
        self.usb = None
        self.busy = 0
        self.last_used = time.monotonic()
        self.end = asyncio.Event()
        self.free_runners = asyncio.Queue()

    def link(self, name):
        return Link(f"{self.work}/{name}")

    async def boot(self):
        self.qmp, self.qtest, self.io = self.link("qmp"), self.link("qtest"), self.link("board.io")
        runners = [self.link(f"runner.{i}") for i in range(RUNNERS)]
        for link in [self.qmp, self.qtest, self.io, *runners]:
            await link.listen()
        await self._start_emulator([self.io, *runners])
        await asyncio.wait_for(self._greet(runners), BOOT_LIMIT_S)
        for runner in runners:
            self.free_runners.put_nowait(runner)

    async def _start_emulator(self, ports):
        tree = f"{self.work}/board.dtb"
        self.gpio_registers = make_device_tree(tree)
        modules = PROJECT / "build/debian/arm64/root"
        kernel = next((modules / "boot").glob("vmlinuz-*"))
        command = [
            *EMULATOR, "-no-reboot", "-monitor", "none", "-serial", f"file:{self.state}/console",
            "-kernel", kernel, "-initrd", self.initramfs, "-dtb", tree, "-append",
            f"console=ttyAMA0 panic=-1 quiet {CHEAP} rdinit=/init quorcore.project={PROJECT}",
            "-qmp", f"unix:{self.qmp.path}", "-qtest", f"unix:{self.qtest.path}",
            "-qtest-log", "/dev/null",
            "-fsdev", f"local,id=project,path={PROJECT},security_model=none,readonly=on,multidevs=remap",
            "-device", "virtio-9p-pci,fsdev=project,mount_tag=project",
            "-device", "sdhci-pci,id=leds",
            "-chardev", "null,id=uart", "-device", "pci-serial,chardev=uart",
            "-device", "qemu-xhci",
            "-chardev", f"socket,id=usb,path={self.work}/usb,server=on,wait=off",
            "-device", "usb-serial,chardev=usb",
            "-device", "virtio-serial-pci",
        ]  # fmt: skip
        for port in ports:
            name = os.path.basename(port.path)
            command += ["-chardev", f"socket,id={name},path={port.path}",
                        "-device", f"virtserialport,chardev={name},name={name}"]  # fmt: skip
        self.emulator = await asyncio.create_subprocess_exec(
            *command, stdin=subprocess.DEVNULL, preexec_fn=end_with_parent
        )

    async def _greet(self, runners):
        await self.qmp.connected()
        await self.qmp.line()
        await self.ask_qmp("qmp_capabilities")
        await self.qtest.connected()
        await self.io.connected()
        for entry in await self.ask_qmp("qom-list", path="/machine/unattached"):
            if entry["type"] == "child<pl061>":
                self.gpio_object = f"/machine/unattached/{entry['name']}"
        for runner in runners:
            await runner.connected()
            while await runner.line() != "ready":
                pass

    async def switch_off(self):
        """On every way out, and by the pid."""
        if self.emulator is not None and self.emulator.returncode is None:
            self.emulator.kill()
            await self.emulator.wait()

    async def ask_qmp(self, command, **arguments):
        await self.qmp.send(json.dumps({"execute": command, "arguments": arguments}) + "\n")
        while True:
            answer = json.loads(await self.qmp.line())
            if "error" in answer:
                raise RuntimeError(answer["error"])
            if "return" in answer:  # all else are events
                return answer["return"]

    async def memory(self, address):
        """One word as the processor would read it."""
        text = await self.ask_qmp("human-monitor-command", **{"command-line": f"xp /1wx {address:#x}"})
        return int(text.split()[1], 16)

    async def set_line(self, line, level):
        if not (0 <= line < 8 and level in (0, 1)):
            raise ValueError("a line is 0 to 7, a level 0 or 1")
        await self.qtest.send(f"set_irq_in {self.gpio_object} unnamed-gpio-in {line} {level}\n")
        while (answer := await self.qtest.line()).startswith("IRQ"):
            pass
        if answer != "OK":
            raise RuntimeError(answer)

    async def get_line(self, line):
        if not 0 <= line < 8:
            raise ValueError("a line is 0 to 7")
        return (await self.memory(self.gpio_registers + PL061_ALL_DATA)) >> line & 1

    async def led(self):
        for bus in await self.ask_qmp("query-pci"):
            for device in bus["devices"]:
                if device["qdev_id"] == "leds":
                    registers = device["regions"][0]["address"]
                    return (await self.memory(registers + SDHCI_HOST_CONTROL)) & 1
        raise RuntimeError("the LED's controller is gone")

    async def plug(self):
        """A USB serial adapter; what is sent to it comes back."""
        if self.usb is None:
            reader, self.usb = await asyncio.open_unix_connection(f"{self.work}/usb")
            asyncio.create_task(self._echo(reader, self.usb))

    async def _echo(self, reader, writer):
        try:
            while data := await reader.read(4096):
                writer.write(data)
        except ConnectionError:
            pass  # unplugged

    async def unplug(self):
        if self.usb is not None:
            self.usb.close()
            self.usb = None

    async def answer(self, request):
        words = request.split()
        if len(words) == 3 and words[0] == "set":
            await self.set_line(int(words[1]), int(words[2]))
        elif len(words) == 2 and words[0] == "get":
            return str(await self.get_line(int(words[1])))
        elif words == ["led"]:
            return str(await self.led())
        elif words == ["plug"]:
            await self.plug()
        elif words == ["unplug"]:
            await self.unplug()
        else:
            raise ValueError(f"not known: {request}")
        return "ok"

    async def serve_io(self):
        while True:
            request = await self.io.line()
            try:
                text = await asyncio.wait_for(self.answer(request), ANSWER_LIMIT_S)
            except (ValueError, RuntimeError, OSError, asyncio.TimeoutError) as error:
                text = f"error {error!r}"
            await self.io.send(text + "\n")

    async def run(self, command, limit_s, output):
        """Runs one line of shell; hands what it writes to output(); returns its exit status."""
        runner = await asyncio.wait_for(self.free_runners.get(), limit_s)
        mark = secrets.token_hex(16)
        await runner.send(f"{mark} {limit_s} {command}\n")
        # The board ends the command at its limit; one that says nothing even then is lost, and with
        # it its runner.
        give_up = time.monotonic() + limit_s + 15
        held = b""
        while True:
            data = await asyncio.wait_for(runner.reader.read(65536), give_up - time.monotonic())
            if not data:
                raise ConnectionError("the board is gone")
            held += data
            before, found, after = held.partition(mark.encode())
            if found and after.endswith(b"\n"):
                output(before)
                self.free_runners.put_nowait(runner)
                return int(after)
            if not found:
                output(held[: -len(mark)])
                held = held[-len(mark) :]

    async def on_client(self, reader, writer):
        self.busy += 1

        def output(data):
            if data and not writer.is_closing():
                writer.write(struct.pack(">i", len(data)) + data)

        status = STATUS_LOST
        try:
            request = json.loads(await reader.readline())
            if request.get("stop"):
                await self.switch_off()
                self.end.set()
                status = 0
            else:
                status = await self.run(request["command"], request["limit"], output)
        except asyncio.TimeoutError:
            output(b"board: no answer\n")
        except (OSError, ValueError, KeyError) as error:
            output(f"board: {error!r}\n".encode())
        finally:
            self.busy -= 1
            self.last_used = time.monotonic()
            writer.write(struct.pack(">ii", 0, status))
            writer.close()

    async def watch(self):
        """Returns when the board is to be switched off."""
        born = time.monotonic()
        while not self.end.is_set() and self.emulator.returncode is None:
            now = time.monotonic()
            if now - born > LIFE_LIMIT_S or (not self.busy and now - self.last_used > IDLE_LIMIT_S):
                print("board: nobody has asked for long", flush=True)
                return
            try:
                await asyncio.wait_for(self.end.wait(), 1)
            except asyncio.TimeoutError:
                pass


async def serve(state, initramfs, work, ready_fd):
    board = Board(state, initramfs, work)
    me = asyncio.current_task()
    asyncio.get_running_loop().add_signal_handler(signal.SIGTERM, me.cancel)
    try:
        await board.boot()
        io = asyncio.create_task(board.serve_io())
        clients = await asyncio.start_unix_server(board.on_client, f"{work}/clients")
        (state / "address").write_text(f"{work}/clients")
        os.write(ready_fd, b"ready")
        os.close(ready_fd)
        async with clients:
            await board.watch()
        io.cancel()
    finally:
        await board.switch_off()


def start(arguments):
    state = arguments.state
    state.mkdir(parents=True, exist_ok=True)
    for name in ("address", "console"):
        (state / name).unlink(missing_ok=True)
    ready, ready_child = os.pipe()
    with open(state / "log", "wb") as log:
        server = subprocess.Popen(
            [__file__, "serve", "--ready-fd", str(ready_child), state, arguments.initramfs],
            stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True,
            pass_fds=[ready_child],
        )  # fmt: skip
    os.close(ready_child)
    began = time.monotonic()
    readable, _, _ = select.select([ready], [], [], BOOT_LIMIT_S + 30)
    if readable and os.read(ready, 5) == b"ready":
        print(f"board: ready after {time.monotonic() - began:.1f} s")
        return 0
    server.terminate()
    server.wait(timeout=30)
    print("board: does not boot", file=sys.stderr)
    for name in ("log", "console"):
        if (state / name).exists():
            sys.stderr.write((state / name).read_text(errors="replace")[-4000:])
    return 1


def ask(state, limit_s, request):
    """Sends a request, copies the output, returns the status."""
    with socket.socket(socket.AF_UNIX) as link:
        link.settimeout(limit_s)
        link.connect((state / "address").read_text())
        link.sendall((json.dumps(request) + "\n").encode())
        with link.makefile("rb") as answer:
            while length := struct.unpack(">i", answer.read(4))[0]:
                sys.stdout.buffer.write(answer.read(length))
                sys.stdout.buffer.flush()
            return struct.unpack(">i", answer.read(4))[0]


def run(arguments):
    command = f"cd {shlex.quote(os.getcwd())} 2> /dev/null; exec {shlex.join(arguments.command)}"
    if "\n" in command:
        raise ValueError("a command is one line")
    # Its turn may come late: as late as the limits of those before it allow.
    return ask(arguments.state, 3 * arguments.limit + 60,
               {"command": command, "limit": arguments.limit})  # fmt: skip


def stop(arguments):
    return ask(arguments.state, 30, {"stop": True})


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    commands = parser.add_subparsers(dest="what", required=True)
    for name in ("start", "serve", "run", "stop"):
        command = commands.add_parser(name, usage=__doc__)
        if name == "run":
            command.add_argument("--limit", type=int, default=60)
        if name == "serve":
            command.add_argument("--ready-fd", type=int)
        command.add_argument("state", type=Path)
        if name in ("start", "serve"):
            command.add_argument("initramfs", type=Path)
        if name == "run":
            command.add_argument("command", nargs=argparse.REMAINDER)
    arguments = parser.parse_args()
    arguments.state = arguments.state.resolve()

    if arguments.what == "serve":
        work = tempfile.mkdtemp(prefix="board-", dir="/tmp")  # a socket's path is short: unix(7)
        try:
            asyncio.run(serve(arguments.state, arguments.initramfs, work, arguments.ready_fd))
        except asyncio.CancelledError:
            pass
        finally:
            shutil.rmtree(work, ignore_errors=True)
        return 0
    try:
        return {"start": start, "run": run, "stop": stop}[arguments.what](arguments)
    except (OSError, struct.error, ValueError) as error:
        print(f"board: {error!r}; see {arguments.state}/log", file=sys.stderr)
        return STATUS_LOST


if __name__ == "__main__":
    sys.exit(main())
