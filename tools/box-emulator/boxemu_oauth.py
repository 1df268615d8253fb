"""Box's OAuth 2.0 token endpoints ("/oauth2/token", "/oauth2/revoke") and
the users of the emulated account ("GET /2.0/users/me").

Grants served: "refresh_token" (each use spends the refresh token and
returns a new one, as Box rotates them) and "client_credentials" acting as
a named user ("box_subject_type" = "user").  Issued access tokens join the
bearer tokens the API accepts.  Clients, users and refresh tokens are set
up through the control interface; everything here is guarded by the
State's lock."""

import secrets
import time
from urllib.parse import parse_qs

from boxemu_api import Response, first
from boxemu_store import USER

FORM_LIMIT = 64 << 10
DEFAULT_LIFETIME = 3600          # Box's access tokens last about an hour
DEFAULT_MAX_UPLOAD = 5 << 30     # a Business plan's upload limit
SPACE_AMOUNT = 10 << 40
USER_MINI = ("type", "id", "name", "login")


class OAuthError(Exception):
    """An answer in the OAuth 2.0 error form: 400 with "error" and
    "error_description", as Box answers every refused token request."""

    def __init__(self, error, description):
        super().__init__(description)
        self.error = error
        self.description = description

    def response(self):
        return Response(400, {"error": self.error, "error_description": self.description})


def default_users():
    user = dict(USER, max_upload_size=DEFAULT_MAX_UPLOAD)
    return {user["id"]: user}


class OAuth:
    def __init__(self, state):
        self.state = state
        self.started = time.time()

    def reset_locked(self):
        """Back to start-up: no clients, no refresh tokens, the one default
        user (who "test-token" and every unassigned token belong to)."""
        self.clients = {}            # client id -> secret
        self.users = default_users()
        self.refresh = {}            # refresh token -> {"client_id","user_id","spent"}
        self.lifetime = DEFAULT_LIFETIME
        self.next_lifetimes = []
        self.state.token_users = {}

    # -- control --------------------------------------------------------

    def add_client(self, client_id, secret):
        self.clients[client_id] = secret

    def add_user(self, user):
        record = dict(self.users.get(user["id"]) or {"type": "user", "id": user["id"],
                                                      "name": "User " + user["id"],
                                                      "login": "user%s@example.com" % user["id"],
                                                      "max_upload_size": DEFAULT_MAX_UPLOAD})
        record.update(user)
        self.users[user["id"]] = record

    def add_refresh_token(self, token, client_id, user_id):
        self.refresh[token] = {"client_id": client_id, "user_id": user_id, "spent": False}

    def revoke(self, token):
        self.refresh.pop(token, None)
        self.state.tokens.pop(token, None)
        self.state.token_users.pop(token, None)

    def view(self):
        return {"clients": sorted(self.clients), "users": sorted(self.users),
                "access_token_lifetime": self.lifetime,
                "next_lifetimes": list(self.next_lifetimes),
                "refresh_tokens": {t: {"client_id": r["client_id"], "user_id": r["user_id"],
                                       "state": "spent" if r["spent"] else "active"}
                                   for t, r in self.refresh.items()},
                "access_tokens": {t: {"user_id": self.state.token_users.get(t, USER["id"]),
                                      "expires_at": e}
                                  for t, e in self.state.tokens.items()}}

    # -- POST /oauth2/token and /oauth2/revoke ------------------------------

    def token(self, req):
        try:
            params = self._form(req)
            with self.state.lock:
                grant = params.get("grant_type")
                if grant == "refresh_token":
                    return Response(200, self._refresh_grant(params))
                if grant == "client_credentials":
                    return Response(200, self._client_credentials_grant(params))
                raise OAuthError("invalid_grant",
                                 "Invalid grant_type parameter or parameter missing")
        except OAuthError as e:
            return e.response()

    def revoke_request(self, req):
        try:
            params = self._form(req)
            with self.state.lock:
                self._client(params)
                token = params.get("token")
                if not token:
                    raise OAuthError("invalid_request", "The token parameter is missing")
                self.revoke(token)
            return Response(200)
        except OAuthError as e:
            return e.response()

    @staticmethod
    def _form(req):
        ctype = (req.headers.get("Content-Type") or "").split(";")[0].strip().lower()
        data = req.body.read_all(FORM_LIMIT)
        if ctype != "application/x-www-form-urlencoded":
            raise OAuthError("invalid_request",
                             "The body must be application/x-www-form-urlencoded")
        if data is None:
            raise OAuthError("invalid_request", "The request body is too large")
        try:
            pairs = parse_qs(data.decode("utf-8"), keep_blank_values=True, strict_parsing=False)
        except UnicodeDecodeError:
            raise OAuthError("invalid_request", "The body is not UTF-8") from None
        if any(len(v) > 1 for v in pairs.values()):
            raise OAuthError("invalid_request", "A parameter is repeated")
        return {k: v[0] for k, v in pairs.items()}

    def _client(self, params):
        client_id = params.get("client_id")
        if not client_id or self.clients.get(client_id) != params.get("client_secret"):
            raise OAuthError("invalid_client", "The client credentials are invalid")
        return client_id

    def _refresh_grant(self, params):
        client_id = self._client(params)
        old = params.get("refresh_token")
        record = self.refresh.get(old or "")
        # A spent, revoked, unknown or foreign token all look the same to
        # the caller, as on Box.
        if record is None or record["spent"] or record["client_id"] != client_id:
            raise OAuthError("invalid_grant", "Invalid refresh token")
        if record["user_id"] not in self.users:
            raise OAuthError("invalid_grant", "Invalid refresh token")
        record["spent"] = True
        new = secrets.token_hex(32)
        self.add_refresh_token(new, client_id, record["user_id"])
        doc = self._access_token(record["user_id"])
        doc["refresh_token"] = new
        return doc

    def _client_credentials_grant(self, params):
        self._client(params)
        subject_type = params.get("box_subject_type")
        subject_id = params.get("box_subject_id")
        if subject_type not in ("user", "enterprise") or not subject_id:
            raise OAuthError("invalid_request",
                             "box_subject_type and box_subject_id are required")
        if subject_type == "enterprise":
            raise OAuthError("unauthorized_client",
                             "The emulator serves client credentials for users only")
        if subject_id not in self.users:
            raise OAuthError("invalid_grant", "Grant credentials are invalid")
        return self._access_token(subject_id)

    def _access_token(self, user_id):
        lifetime = self.next_lifetimes.pop(0) if self.next_lifetimes else self.lifetime
        token = secrets.token_hex(16)
        self.state.tokens[token] = time.time() + lifetime
        self.state.token_users[token] = user_id
        return {"access_token": token, "expires_in": lifetime, "token_type": "bearer",
                "restricted_to": []}

    # -- users ----------------------------------------------------------

    def user_of(self, token):
        """The user record a bearer token acts for (the default user's for
        tokens given on the command line or through "tokens")."""
        with self.state.lock:
            user_id = self.state.token_users.get(token, USER["id"])
            return dict(self.users.get(user_id) or default_users()[USER["id"]])

    def users_me(self, req):
        req.body.drain()
        user = self.user_of(bearer(req.headers.get("Authorization")))
        store = self.state.store
        with store.lock:
            used = store.folder_size(store.root)   # one tree, whoever asks
        fmt = store.clock.format
        full = {"type": "user", "id": user["id"], "name": user["name"], "login": user["login"],
                "created_at": fmt(self.started), "modified_at": fmt(self.started),
                "language": "en", "timezone": self.state.args.timezone,
                "space_amount": SPACE_AMOUNT, "space_used": used,
                "max_upload_size": user["max_upload_size"], "status": "active",
                "job_title": "", "phone": "", "address": "",
                "avatar_url": "%s/api/avatar/large/%s" % (req.base_url, user["id"]),
                "notification_email": None}
        fields = first(req.query, "fields")
        if fields is None:
            return Response(200, full)
        wanted = set(USER_MINI) | {f.strip() for f in fields.split(",") if f.strip()}
        return Response(200, {k: v for k, v in full.items() if k in wanted})


def bearer(header):
    scheme, _, token = (header or "").strip().partition(" ")
    return token.strip() if scheme.lower() == "bearer" else ""
