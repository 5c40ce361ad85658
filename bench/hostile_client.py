"""The raw HTTP client side of the hostile-load tool: request heads and multipart bodies,
and connections that send a body while they read the answer, so an early answer is seen as
early and is not lost when the server closes on the rest of the body."""

import asyncio
import re
import socket

from serverlib import page_message

MIB = 1024 * 1024
BOUNDARY = b"hostile-load-boundary"
CLOSING = b"\r\n--" + BOUNDARY + b"--\r\n"
GOOD_SOURCE = "127.0.0.1"  # where good clients connect from; attackers use other addresses


class Answer:
    """What one request got: a status with its headers and body (the first MiB), or what
    happened instead ("closed", "reset", "timeout", "no connection", "garbled")."""

    def __init__(self, status=None, headers=None, body=b"", what=None):
        self.status, self.headers, self.body, self.what = status, headers or {}, body, what
        self.early = False  # it came before the whole body was sent
        self.after = None   # "closed", "open" or "more": what the connection did next

    @property
    def label(self):
        if self.status is None:
            return self.what
        if self.status == 503 and "retry-after" not in self.headers:
            return "503(no Retry-After)"
        if self.status == 401 and "www-authenticate" not in self.headers:
            return "401(no WWW-Authenticate)"
        return str(self.status)

    def message(self):
        """The text a result page posts, or the plain-text body."""
        posted = page_message(self.body)
        return posted if posted is not None else self.body.decode(errors="replace")


def request_head(port, length=None, chunked=False, extra=(), keep_alive=False):
    lines = [b"POST /users HTTP/1.1", b"Host: 127.0.0.1:%d" % port,
             b"Content-Type: multipart/form-data; boundary=" + BOUNDARY]
    if length is not None:
        lines.append(b"Content-Length: %d" % length)
    if chunked:
        lines.append(b"Transfer-Encoding: chunked")
    if not keep_alive:
        lines.append(b"Connection: close")
    return b"\r\n".join(lines + list(extra)) + b"\r\n\r\n"


def part_head(name, first=True):
    return ((b"--" if first else b"\r\n--") + BOUNDARY +
            b'\r\nContent-Disposition: form-data; name="file"; filename="' + name +
            b'"\r\nContent-Type: application/octet-stream\r\n\r\n')


def small_body(parts):
    """A whole body of (name, content) parts."""
    pieces = [part_head(name, index == 0) + content for index, (name, content) in enumerate(parts)]
    return b"".join(pieces) + CLOSING


def repeated(block, total):
    """total bytes as slices of block, without ever holding them all."""
    view = memoryview(block)
    while total > 0:
        size = min(total, len(block))
        yield view[:size]
        total -= size


class Connection:
    """A non-blocking client socket. Sending and receiving fail apart: a server that answers
    early and closes makes our sending fail, and its answer must still be read (a stream
    transport would drop it with the failed send). Close only once no operation is pending."""

    def __init__(self, sock):
        self.sock = sock
        self.buffer = b""

    @classmethod
    async def open(cls, port, source, timeout=5):
        sock = socket.socket()
        sock.setblocking(False)
        try:
            sock.bind((source, 0))
            await asyncio.wait_for(asyncio.get_running_loop().sock_connect(
                sock, ("127.0.0.1", port)), timeout)
        except BaseException:
            sock.close()
            raise
        return cls(sock)

    async def send(self, data):
        await asyncio.get_running_loop().sock_sendall(self.sock, data)

    async def receive(self):
        data = await asyncio.get_running_loop().sock_recv(self.sock, 1 << 16)
        self.buffer += data
        return data

    async def read_answer(self):
        """The next answer; its body is kept up to 1 MiB."""
        try:
            while b"\r\n\r\n" not in self.buffer:
                if len(self.buffer) > 1 << 16:
                    return Answer(what="garbled")
                if not await self.receive():
                    return Answer(what="garbled" if self.buffer else "closed")
            raw, self.buffer = self.buffer.split(b"\r\n\r\n", 1)
            match = re.match(rb"HTTP/1\.[01] (\d{3})", raw)
            if not match:
                return Answer(what="garbled")
            headers = {}
            for line in raw.split(b"\r\n")[1:]:
                name, _, value = line.partition(b":")
                headers[name.strip().lower().decode(errors="replace")] = value.strip().decode(
                    errors="replace")
            length = min(int(headers.get("content-length", "0")), MIB)
            while len(self.buffer) < length:
                if not await self.receive():
                    return Answer(what="garbled")
            body, self.buffer = self.buffer[:length], self.buffer[length:]
            return Answer(int(match.group(1)), headers, body)
        except ValueError:
            return Answer(what="garbled")
        except OSError:
            return Answer(what="reset")

    async def what_follows(self, seconds):
        """After an answer: "closed" when the server closes within seconds, "more" when it
        sends more bytes (a second answer), "open" when neither."""
        try:
            if self.buffer or await asyncio.wait_for(self.receive(), seconds):
                return "more"
        except TimeoutError:
            return "open"
        except ConnectionError:
            pass
        return "closed"

    def close(self):
        self.sock.close()


async def finish(*tasks):
    """Cancels tasks and waits until they are over, so their sockets may be closed."""
    for task in tasks:
        task.cancel()
    await asyncio.wait(tasks)
    for task in tasks:
        if not task.cancelled():
            task.exception()  # read: a send that failed on an early answer is no news


async def exchange(port, head, body=b"", source=GOOD_SOURCE, timeout=60, linger=0):
    """One request on a fresh connection. The body (bytes or chunks) is sent while the answer
    is read, and sending stops as soon as the answer comes, as a client that honours an early
    answer does. linger: then wait this long to see what the connection does next."""
    try:
        connection = await Connection.open(port, source)
    except (OSError, TimeoutError):
        return Answer(what="no connection")
    complete = []

    async def send():
        await connection.send(head)
        for chunk in [body] if isinstance(body, bytes) else body:
            await connection.send(chunk)
            # A send the socket takes at once does not give the loop a turn; without one, a
            # server that answers early and drains the rest would never see its answer read
            # before the whole body is out.
            await asyncio.sleep(0)
        complete.append(True)

    sender = asyncio.create_task(send())
    try:
        try:
            answer = await asyncio.wait_for(connection.read_answer(), timeout)
        except TimeoutError:
            answer = Answer(what="timeout")
        answer.early = not complete
        await finish(sender)
        if linger and answer.status is not None:
            answer.after = await connection.what_follows(linger)
        return answer
    finally:
        await finish(sender)
        connection.close()
