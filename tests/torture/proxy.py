"""A TCP proxy between agents and daemon that cuts, delays and blocks connections on demand; a process of its own.

    proxy.py HOST PORT

prints the port it listens on and then obeys lines of its standard input: "target PORT", "delay SECONDS", "block 0|1", "cut".
"""

import asyncio
import contextlib
import subprocess
import sys


class Proxy:
    """The harness's end."""

    def __init__(self, port):
        self.process = subprocess.Popen([sys.executable, __file__, "127.0.0.1", str(port)], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        self.port = int(self.process.stdout.readline())

    def tell(self, command):
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()

    def stop(self):
        self.process.stdin.close()
        self.process.wait(10)


class Relay:
    def __init__(self, host, port):
        self.target = (host, port)
        self.delay = 0.0
        self.blocked = False
        self.writers = set()

    async def run(self):
        server = await asyncio.start_server(self.serve, "127.0.0.1", 0)
        print(server.sockets[0].getsockname()[1], flush=True)
        commands = asyncio.StreamReader()
        await asyncio.get_running_loop().connect_read_pipe(lambda: asyncio.StreamReaderProtocol(commands), sys.stdin)
        while command := (await commands.readline()).decode().split():
            self.obey(*command)

    def obey(self, what, value=""):
        if what == "target":
            self.target = (self.target[0], int(value))
        elif what == "delay":
            self.delay = float(value)
        elif what == "block":
            self.blocked = value == "1"
        elif what == "cut":  # resets every connection, wherever in a frame it is
            for writer in list(self.writers):
                writer.transport.abort()

    async def serve(self, reader, writer):
        try:
            far_reader, far_writer = await asyncio.open_connection(*self.target)
        except OSError:
            writer.close()
            return
        both = (writer, far_writer)
        self.writers.update(both)
        try:
            await asyncio.gather(self.pump(reader, far_writer), self.pump(far_reader, writer))
        finally:
            self.writers.difference_update(both)
            for end in both:
                end.close()

    async def pump(self, reader, writer):
        with contextlib.suppress(OSError, asyncio.IncompleteReadError):
            while data := await reader.read(65536):
                while self.blocked:
                    await asyncio.sleep(0.05)
                if self.delay:
                    await asyncio.sleep(self.delay)
                writer.write(data)
                await writer.drain()
        with contextlib.suppress(OSError):
            writer.close()


if __name__ == "__main__":
    asyncio.run(Relay(sys.argv[1], int(sys.argv[2])).run())
