"""A TCP proxy between agents and daemon that cuts, delays and blocks connections on demand. One thread of its own."""

import asyncio
import contextlib
import threading


class Proxy:
    def __init__(self, target):
        self.target = target  # (host, port), may change between connections
        self.delay = 0.0
        self.blocked = False
        self.writers = set()
        self.loop = asyncio.new_event_loop()
        self.port = None
        ready = threading.Event()
        self.thread = threading.Thread(target=self.run, args=(ready,), daemon=True)
        self.thread.start()
        ready.wait()

    def run(self, ready):
        asyncio.set_event_loop(self.loop)
        server = self.loop.run_until_complete(asyncio.start_server(self.serve, "127.0.0.1", 0))
        self.port = server.sockets[0].getsockname()[1]
        ready.set()
        self.loop.run_forever()

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

    def cut(self):
        """Resets every connection, wherever in a frame it is."""

        def abort():
            for writer in list(self.writers):
                writer.transport.abort()

        self.loop.call_soon_threadsafe(abort)

    def stop(self):
        self.cut()
        self.loop.call_soon_threadsafe(self.loop.stop)
        self.thread.join(5)
