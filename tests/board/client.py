"""A Redfish client outside of the board. The board's certificate is its own: nobody vouches for it."""
import dataclasses
import http.client
import json
import ssl

from errors import Failure

service = "/redfish/v1/SessionService"
sessions = service + "/Sessions"
answer_limit = 120


@dataclasses.dataclass
class Session:
    uri: str
    token: str


class Client:
    """One connection that stays open. Lost ones raise OSError or http.client.HTTPException."""

    def __init__(self, port):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
        self.connection = http.client.HTTPSConnection("127.0.0.1", port, timeout=answer_limit,
                                                      context=context)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.connection.close()

    def ask(self, method, uri, session=None, body=None):
        """Status, headers and the JSON of the answer, if it has any."""
        headers = {"X-Auth-Token": session.token} if session else {}
        if body is not None:
            headers["Content-Type"] = "application/json"
            body = json.dumps(body)
        self.connection.request(method, uri, body, headers)
        answer = self.connection.getresponse()
        text = answer.read()
        return answer.status, answer.headers, json.loads(text) if text else None

    def expect(self, status, method, uri, session=None, body=None):
        """The answer's JSON, if it has the status that it must have."""
        given, _, content = self.ask(method, uri, session, body)
        if given != status:
            raise Failure(f"{method} {uri}: {given}, not {status}: {content}")
        return content

    def try_login(self, user, password):
        """The status, and the session if it is 201."""
        status, headers, _ = self.ask("POST", sessions,
                                      body={"UserName": user, "Password": password})
        if status != 201:
            return status, None
        return status, Session(headers["Location"], headers["X-Auth-Token"])
