#!/usr/bin/env python3
"""vesktap-gnmi as a collector meets it: a real target process and a real gRPC client
(python3-grpcio, stubs generated from the project's gnmi.proto). Capabilities names the
schema and the encodings; Set is not served; plaintext only when asked for; TLS and
mutual TLS refuse what they must; SIGTERM stops it with 143.
Usage: gnmi_test.py <vesktap-gnmi> <directory of the generated Python stubs>"""

import os
import re
import signal
import subprocess
import sys
import tempfile

TARGET, STUBS = sys.argv[1], sys.argv[2]
sys.path.insert(0, STUBS)

import grpc  # noqa: E402
import gnmi_pb2  # noqa: E402
import gnmi_pb2_grpc  # noqa: E402


class Target:
    """A running vesktap-gnmi on a free port of localhost; stopped with SIGTERM on exit."""

    def __init__(self, *args):
        self.process = subprocess.Popen([TARGET, "--listen", "localhost:0", *args],
                                        stderr=subprocess.PIPE, text=True)
        line = self.process.stderr.readline()
        found = re.search(r"\(port (\d+), ([a-z ]+|TLS|mutual TLS)\)", line)
        assert found, f"no listening line from the target: {line!r}"
        self.port = int(found.group(1))
        self.security = found.group(2)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        self.status = self.process.wait(timeout=10)
        self.process.stderr.close()


def call(channel, method, request):
    return getattr(gnmi_pb2_grpc.gNMIStub(channel), method)(request, timeout=5)


def test_capabilities_and_set_in_plaintext():
    with Target("--insecure") as target:
        assert target.security == "plaintext"
        with grpc.insecure_channel(f"localhost:{target.port}") as channel:
            answer = call(channel, "Capabilities", gnmi_pb2.CapabilityRequest())
            assert answer.gNMI_version == "0.10.0"
            assert [(m.name, m.version) for m in answer.supported_models] == [("vesktap-tables", "1")]
            assert set(answer.supported_encodings) == {gnmi_pb2.JSON_IETF, gnmi_pb2.PROTO}
            # Set is not in the target's service: gRPC itself answers UNIMPLEMENTED.
            set_call = channel.unary_unary("/gnmi.gNMI/Set", request_serializer=lambda b: b,
                                           response_deserializer=lambda b: b)
            try:
                set_call(b"", timeout=5)
                raise AssertionError("Set was served")
            except grpc.RpcError as error:
                assert error.code() == grpc.StatusCode.UNIMPLEMENTED, error
    assert target.status == 128 + signal.SIGTERM


def refused(*args):
    """The target's exit status and its one line on stderr, for options it must refuse."""
    done = subprocess.run([TARGET, *args], capture_output=True, text=True, timeout=10)
    lines = done.stderr.strip().splitlines()
    assert len(lines) == 1, f"expected one line, got {lines}"
    return done.returncode, lines[0]


def test_plaintext_only_when_asked_for():
    status, line = refused()
    assert status == 2 and "--tls-cert" in line and "--insecure" in line, line
    status, line = refused("--insecure", "--tls-cert", "x.pem")
    assert status == 2 and "leave out" in line, line
    status, line = refused("--tls-cert", "/nonexistent.pem", "--tls-key", "/nonexistent.key")
    assert status == 2 and "/nonexistent" in line, line


def openssl(*args, cwd):
    subprocess.run(["openssl", *args], cwd=cwd, check=True, capture_output=True)


def certificates(directory):
    """A CA, a target certificate for localhost and a client certificate, both signed by the
    CA, and a client certificate signed by nobody the target trusts."""
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=test CA",
            "-keyout", "ca.key", "-out", "ca.pem", cwd=directory)
    for name in ("target", "client"):
        openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", f"/CN={name}",
                "-keyout", f"{name}.key", "-out", f"{name}.csr", cwd=directory)
        with open(os.path.join(directory, f"{name}.ext"), "w") as ext:
            ext.write("subjectAltName=DNS:localhost\n")
        openssl("x509", "-req", "-in", f"{name}.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
                "-CAcreateserial", "-days", "2", "-extfile", f"{name}.ext", "-out", f"{name}.pem",
                cwd=directory)
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=stranger",
            "-keyout", "stranger.key", "-out", "stranger.pem", cwd=directory)
    return lambda name: open(os.path.join(directory, name), "rb").read()


def capabilities_over(port, credentials):
    with grpc.secure_channel(f"localhost:{port}", credentials) as channel:
        return call(channel, "Capabilities", gnmi_pb2.CapabilityRequest())


def unavailable(port, credentials):
    try:
        capabilities_over(port, credentials)
    except grpc.RpcError as error:
        return error.code() == grpc.StatusCode.UNAVAILABLE
    return False


def test_tls_and_mutual_tls():
    with tempfile.TemporaryDirectory() as directory:
        pem = certificates(directory)
        path = lambda name: os.path.join(directory, name)  # noqa: E731
        tls = ["--tls-cert", path("target.pem"), "--tls-key", path("target.key")]
        with Target(*tls) as target:
            assert target.security == "TLS"
            trusted = grpc.ssl_channel_credentials(root_certificates=pem("ca.pem"))
            assert capabilities_over(target.port, trusted).gNMI_version == "0.10.0"
            with grpc.insecure_channel(f"localhost:{target.port}") as channel:
                try:
                    call(channel, "Capabilities", gnmi_pb2.CapabilityRequest())
                    raise AssertionError("a plaintext client was served by a TLS target")
                except grpc.RpcError as error:
                    assert error.code() == grpc.StatusCode.UNAVAILABLE, error
        with Target(*tls, "--tls-client-ca", path("ca.pem")) as target:
            assert target.security == "mutual TLS"
            assert unavailable(target.port, grpc.ssl_channel_credentials(pem("ca.pem"))), \
                "a client without a certificate was served"
            assert unavailable(target.port, grpc.ssl_channel_credentials(
                pem("ca.pem"), pem("stranger.key"), pem("stranger.pem"))), \
                "a client whose certificate the target does not trust was served"
            signed = grpc.ssl_channel_credentials(pem("ca.pem"), pem("client.key"), pem("client.pem"))
            assert capabilities_over(target.port, signed).gNMI_version == "0.10.0"


if __name__ == "__main__":
    for name, test in list(globals().items()):
        if name.startswith("test_"):
            test()
            print(f"{name}: passed")
