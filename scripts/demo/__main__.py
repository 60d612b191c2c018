"""The two halves of ./run: `record EXECUTABLE DIRECTORY` and `serve EXECUTABLE PORT`."""

import os
import shlex
import signal
import sys
import tempfile

import processes
from console import Console, NoReply
from processes import Failure
from recording import Recording, Unreadable, account, grab_summary

CONSOLE_ADDRESS = "127.0.0.2"  # kadrel relays what comes from 127.0.0.1 instead of recording it
SERVICE_ADDRESS = "127.0.0.1"
PORT_ADDRESSES = (0, 1, 2, 3)
FRAMES_PER_SECOND = 44
SECONDS = 3
INTERRUPTED = 130


def say(text=""):
    print(text, flush=True)


def output_directory(wanted):
    """The wanted directory, made if need be; a temporary one when it cannot be written or its name is not UTF-8."""
    try:
        wanted.encode("utf-8")
        os.makedirs(wanted, exist_ok=True)
        if os.access(wanted, os.W_OK | os.X_OK):
            return wanted
    except (OSError, UnicodeEncodeError):
        pass
    return tempfile.mkdtemp(prefix="kadrel-")


def record(executable, wanted_directory):
    directory = output_directory(wanted_directory)
    path = os.path.join(directory, "first-recording")
    log_path = os.path.join(directory, "kadrel.log")
    port = processes.free_udp_port()
    try:
        with open(log_path, "w", encoding="utf-8") as log, processes.private_bus() as address:
            service = processes.Service(executable, port, address, log)
            try:
                complete = record_with(service, port, path)
            finally:
                status = service.end()
        if status != 0:
            raise Failure(f"kadrel ended with status {status}")
    except Failure:
        say()
        say(f"What kadrel said ({log_path}):")
        with open(log_path, encoding="utf-8", errors="replace") as log:
            sys.stdout.writelines("  " + line for line in log)
        raise
    say()
    say(f"The recording is {path}")
    say(f"kadrel's log is  {log_path}")
    return 0 if complete else 1


def record_with(service, port, path):
    say()
    say(f"kadrel listens on UDP port {port} and is {processes.BUS_NAME} on a private session bus.")
    console = Console(CONSOLE_ADDRESS, SERVICE_ADDRESS, port, PORT_ADDRESSES, FRAMES_PER_SECOND)
    try:
        service.call("grab", path)
        if service.call("get_status") != "on":
            raise Failure(f"kadrel cannot record into {path}")
        name = console.poll()
        say(f'A console at {CONSOLE_ADDRESS} finds "{name}" and plays {len(PORT_ADDRESSES)} universes at'
            f" {FRAMES_PER_SECOND} Hz; recording {SECONDS} seconds ...")
        console.play(SECONDS)
        console.poll()  # answered when everything before it is in the file
    except NoReply as error:
        raise Failure(f"kadrel gives {error}") from error
    finally:
        console.close()
    service.call("stop")
    text = str(service.call("latest_grab"))
    say()
    say("latest_grab:")
    say(text)
    say()

    try:
        with open(path, "rb") as file:
            recording = Recording(file.read())
    except (OSError, Unreadable) as error:
        raise Failure(f"the recording cannot be read: {error}") from error
    lines, complaints = account(recording, console, grab_summary(text, path))
    dropped = service.udp_port.dropped()
    if dropped:
        complaints.append(f"the kernel dropped {dropped} datagrams because kadrel was not given the processor in time")
    say(f"The file ({recording.size} bytes):")
    for line in lines:
        say("  " + line)
    for complaint in complaints:
        say("  INCOMPLETE  " + complaint)
    return not complaints


def serve(executable, port):
    processes.require_free_udp_port(port)
    address = processes.users_bus_address()
    if address is not None:
        processes.require_free_name(address)
        say(f"kadrel is on your session bus ({address}); Ctrl-C ends it.")
        return run_in_foreground(executable, port, address)
    with processes.private_bus() as address:
        say("You have no session bus that answers, so kadrel is on a private one; Ctrl-C ends both.")
        say("For busctl --user, gdbus and the like in another terminal, paste there:")
        say(f"  export DBUS_SESSION_BUS_ADDRESS={shlex.quote(address)}")
        return run_in_foreground(executable, port, address)


def run_in_foreground(executable, port, address):
    """Runs kadrel until it ends or we are asked to end; returns its exit status as a shell would."""
    child = processes.start([executable, str(port)], env=processes.service_environment(address))
    try:
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, lambda *_: child.terminate())
        status = child.wait()
    finally:
        processes.end(child)
    return status if status >= 0 else 128 - status


def main(arguments):
    command, executable, subject = arguments
    processes.stop_on_signals()
    try:
        if command == "record":
            return record(executable, subject)
        return serve(executable, int(subject))
    except Failure as failure:
        print(f"run: {failure}.", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("run: interrupted; everything that was started has ended.", file=sys.stderr)
        return INTERRUPTED


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
