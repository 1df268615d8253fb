"""The emulated Box account: folders and files, their JSON form, metadata
instances and upload sessions.  All mutation happens under Store.lock."""

import base64
import datetime
import secrets
import threading
import time
import uuid

ROOT_ID = "0"
USER = {"type": "user", "id": "11446498", "name": "Emulated User",
        "login": "user@example.com"}
PROPERTIES_TYPE = "properties-6bcba49f-ca6d-4d2a-a758-57fe6edf44d0"
HELP_URL = "http://developers.box.com/docs/#errors"

# What Box returns when no "fields" are asked for.
FILE_STANDARD = ("type", "id", "file_version", "sequence_id", "etag", "sha1",
                 "name", "description", "size", "path_collection",
                 "created_at", "modified_at", "trashed_at", "purged_at",
                 "content_created_at", "content_modified_at", "created_by",
                 "modified_by", "owned_by", "shared_link", "parent",
                 "item_status")
FOLDER_STANDARD = ("type", "id", "sequence_id", "etag", "name", "created_at",
                   "modified_at", "description", "size", "path_collection",
                   "created_by", "modified_by", "trashed_at", "purged_at",
                   "content_created_at", "content_modified_at", "owned_by",
                   "shared_link", "folder_upload_email", "parent",
                   "item_status", "item_collection")
FILE_MINI = ("type", "id", "file_version", "sequence_id", "etag", "sha1", "name")
FOLDER_MINI = ("type", "id", "sequence_id", "etag", "name")
ALWAYS = ("type", "id", "etag")


class BoxError(Exception):
    """An answer in Box's error format."""

    def __init__(self, status, code, message, context_info=None, headers=None):
        super().__init__(message)
        self.status = status
        self.code = code
        self.message = message
        self.context_info = context_info
        self.headers = headers or {}

    def body(self):
        doc = {"type": "error", "status": self.status, "code": self.code,
               "help_url": HELP_URL, "message": self.message,
               "request_id": secrets.token_hex(12)}
        if self.context_info is not None:
            doc["context_info"] = self.context_info
        return doc


def not_found(name="item", value="", location="path", code="not_found"):
    info = {"errors": [{"reason": "invalid_parameter", "name": name,
                        "message": "Invalid value '%s'. '%s' with value '%s' not found"
                                   % (value, name, value),
                        "location": location}]}
    return BoxError(404, code, "Not Found", info)


def bad_request(message, code="bad_request"):
    return BoxError(400, code, message)


class Clock:
    """Renders instants the way Box does: in the account's time zone, with a
    numeric offset and whole seconds."""

    def __init__(self, zone_name):
        self.zone = None
        if zone_name:
            try:
                import zoneinfo
                self.zone = zoneinfo.ZoneInfo(zone_name)
            except Exception:  # no tz database: fall back to a fixed offset
                self.zone = None
        if self.zone is None:
            self.zone = datetime.timezone(datetime.timedelta(hours=-8))

    def format(self, epoch):
        if epoch is None:
            return None
        dt = datetime.datetime.fromtimestamp(int(epoch), self.zone)
        return dt.isoformat(timespec="seconds")

    @staticmethod
    def parse(text):
        """RFC 3339 text -> epoch seconds; ValueError when it is not one."""
        if not isinstance(text, str) or "T" not in text:
            raise ValueError("not a date-time: %r" % (text,))
        dt = datetime.datetime.fromisoformat(text.replace("Z", "+00:00").replace("z", "+00:00"))
        if dt.tzinfo is None:
            raise ValueError("date-time without offset: %r" % (text,))
        return dt.timestamp()


def check_name(name):
    """Box's rules for item names."""
    if not isinstance(name, str) or name == "":
        raise bad_request("Item name is missing or empty", "item_name_invalid")
    if len(name) > 255:
        raise bad_request("Item name is too long", "item_name_too_long")
    if (name in (".", "..") or "/" in name or "\\" in name or name.endswith(" ")
            or any(ord(c) < 32 or ord(c) == 127 for c in name)):
        raise bad_request("Item name invalid", "item_name_invalid")


class Item:
    def __init__(self, store, kind, name, parent):
        self.id = store.new_id()
        self.type = kind
        self.name = name
        self.parent = parent
        now = time.time()
        self.created_at = now
        self.modified_at = now
        self.content_created_at = now
        self.content_modified_at = now
        self.sequence = 0
        self.metadata = {}      # scope -> template -> instance dict
        self.trashed = False
        self.slot = 0           # position in the parent, for stable paging
        if kind == "folder":
            self.children = {}  # slot -> Item, insertion ordered
            self.next_slot = 0
        else:
            self.content = None
            self.version_id = None
            self.version_created_at = now
            self.versions = []  # the versions before the current one, oldest first

    def touch(self):
        self.sequence += 1
        self.modified_at = time.time()


class Version:
    """A file's earlier content, as it was when a newer version replaced it."""

    def __init__(self, item):
        self.id = item.version_id
        self.name = item.name
        self.content = item.content
        self.created_at = item.version_created_at


class Store:
    def __init__(self, clock):
        self.lock = threading.RLock()
        self.clock = clock
        self.reset()

    def reset(self):
        with self.lock:
            old = getattr(self, "items", {})
            for item in old.values():
                if item.type == "file":
                    self.discard_contents(item)
            for session in getattr(self, "sessions", {}).values():
                session.discard()
            self.counter = 1000
            self.version_counter = 5000
            # Box's published API gives context_info.conflicts as a list;
            # the object form is what Box has been seen to answer.
            self.conflicts_as_list = False
            self.items = {}
            self.trash = {}
            self.sessions = {}
            root = Item(self, "folder", "All Files", None)
            root.id = ROOT_ID
            root.created_at = root.modified_at = None
            root.content_created_at = root.content_modified_at = None
            self.items = {ROOT_ID: root}
            self.counter = 1000
            self.root = root

    def new_id(self):
        self.counter += 1
        return str(self.counter)

    def new_version_id(self):
        self.version_counter += 1
        return str(self.version_counter)

    # -- lookup ---------------------------------------------------------

    def get(self, item_id, kind=None, name="item", location="path"):
        item = self.items.get(item_id)
        if item is None or (kind is not None and item.type != kind):
            if item_id in self.trash and (kind is None or self.trash[item_id] == kind):
                raise BoxError(404, "trashed", "Item is trashed",
                               {"errors": [{"reason": "invalid_parameter", "name": name,
                                            "message": "Item is trashed", "location": location}]})
            raise not_found(name, item_id, location)
        return item

    def child_named(self, folder, name):
        wanted = name.lower()
        for child in folder.children.values():
            if child.name.lower() == wanted:
                return child
        return None

    def by_path(self, path):
        if not path.startswith("/"):
            return None
        item = self.root
        for part in [p for p in path.split("/") if p]:
            if item.type != "folder":
                return None
            item = self.child_named(item, part)
            if item is None:
                return None
        return item

    # -- tree changes ---------------------------------------------------

    def conflict(self, folder, name, exclude=None):
        other = self.child_named(folder, name)
        if other is None or other is exclude:
            return
        mini = self.mini(other)
        raise BoxError(409, "item_name_in_use", "Item with the same name already exists",
                       {"conflicts": [mini] if self.conflicts_as_list else mini})

    def attach(self, item, folder):
        item.parent = folder
        item.slot = folder.next_slot
        folder.next_slot += 1
        folder.children[item.slot] = item
        folder.touch()

    def detach(self, item):
        folder = item.parent
        folder.children.pop(item.slot, None)
        folder.touch()

    def create_folder(self, parent, name):
        check_name(name)
        self.conflict(parent, name)
        folder = Item(self, "folder", name, parent)
        self.items[folder.id] = folder
        self.attach(folder, parent)
        return folder

    def create_file(self, parent, name, content, modified_at=None):
        check_name(name)
        self.conflict(parent, name)
        item = Item(self, "file", name, parent)
        self.set_content(item, content, modified_at)
        self.items[item.id] = item
        self.attach(item, parent)
        return item

    def set_content(self, item, content, modified_at=None):
        """Replaces the file's content outright (seeding), no version kept."""
        if item.content is not None:
            item.content.discard()
        self._set_current(item, content, modified_at)

    def new_version(self, item, content, modified_at=None):
        """Makes `content` the file's current version; the one before is kept
        among its versions, as Box keeps them."""
        item.versions.append(Version(item))
        self._set_current(item, content, modified_at)

    def _set_current(self, item, content, modified_at):
        item.content = content
        item.version_id = self.new_version_id()
        item.version_created_at = time.time()
        if modified_at is not None:
            item.content_modified_at = modified_at
        item.touch()

    @staticmethod
    def discard_contents(item):
        for content in [item.content] + [v.content for v in item.versions]:
            if content is not None:
                content.discard()
        item.content = None
        item.versions = []

    def delete(self, item, recursive):
        if item is self.root:
            raise BoxError(403, "access_denied_insufficient_permissions",
                           "The root folder cannot be deleted")
        if item.type == "folder" and item.children and not recursive:
            raise bad_request("Cannot delete - folder not empty", "folder_not_empty")
        self.detach(item)
        self._trash(item)

    def _trash(self, item):
        self.items.pop(item.id, None)
        self.trash[item.id] = item.type
        if item.type == "folder":
            for child in list(item.children.values()):
                self._trash(child)
        else:
            self.discard_contents(item)

    def move(self, item, name, parent):
        if item is self.root:
            raise BoxError(403, "access_denied_insufficient_permissions",
                           "The root folder cannot be renamed or moved")
        check_name(name)
        up = parent
        while up is not None:
            if up is item:
                raise bad_request("Cannot move a folder into itself or its own subfolder")
            up = up.parent
        self.conflict(parent, name, exclude=item)
        item.name = name
        if parent is not item.parent:
            self.detach(item)
            self.attach(item, parent)
        item.touch()

    # -- JSON forms -----------------------------------------------------

    def folder_size(self, folder):
        total = 0
        for child in folder.children.values():
            total += self.folder_size(child) if child.type == "folder" else child.content.size
        return total

    def mini(self, item):
        if item is None:
            return None
        keys = FOLDER_MINI if item.type == "folder" else FILE_MINI
        return {k: self._field(item, k) for k in keys}

    def path_collection(self, item):
        chain = []
        up = item.parent
        while up is not None:
            chain.append(self.mini(up))
            up = up.parent
        chain.reverse()
        return {"total_count": len(chain), "entries": chain}

    def _field(self, item, key):
        fmt = self.clock.format
        root = item is self.root
        if key == "type":
            return item.type
        if key == "id":
            return item.id
        if key in ("sequence_id", "etag"):
            return None if root else str(item.sequence)
        if key == "name":
            return item.name
        if key == "sha1":
            return item.content.sha1
        if key == "file_version":
            return {"type": "file_version", "id": item.version_id, "sha1": item.content.sha1}
        if key == "size":
            return self.folder_size(item) if item.type == "folder" else item.content.size
        if key == "description":
            return ""
        if key == "path_collection":
            return self.path_collection(item)
        if key in ("created_at", "modified_at", "content_created_at", "content_modified_at"):
            return fmt(getattr(item, key))
        if key in ("trashed_at", "purged_at", "shared_link", "folder_upload_email"):
            return None
        if key in ("created_by", "modified_by", "owned_by"):
            return dict(USER)
        if key == "parent":
            return self.mini(item.parent)
        if key == "item_status":
            return "active"
        if key == "item_collection":
            entries = [self.mini(c) for c in list(item.children.values())[:100]]
            return {"total_count": len(item.children), "entries": entries,
                    "offset": 0, "limit": 100,
                    "order": [{"by": "type", "direction": "ASC"},
                              {"by": "name", "direction": "ASC"}]}
        if key == "extension" and item.type == "file":
            return item.name.rsplit(".", 1)[1] if "." in item.name else ""
        raise KeyError(key)

    def item_json(self, item, fields=None, default=None):
        """Box's JSON for an item.  fields: the "fields" query value (None:
        the default set, `default` or the standard one)."""
        if fields is None:
            if default is None:
                default = FOLDER_STANDARD if item.type == "folder" else FILE_STANDARD
            keys, wanted_metadata = default, []
        else:
            wanted = [f.strip() for f in fields.split(",") if f.strip()]
            keys = list(ALWAYS) + [f for f in wanted if f not in ALWAYS and "." not in f]
            wanted_metadata = [f for f in wanted if f.startswith("metadata.")]
        doc = {}
        for key in keys:
            try:
                doc[key] = self._field(item, key)
            except (KeyError, AttributeError):
                pass  # unknown or not applicable fields are left out, as Box does
        metadata = {}
        for field in wanted_metadata:
            parts = field.split(".")
            if len(parts) != 3:
                continue
            instance = item.metadata.get(parts[1], {}).get(parts[2])
            if instance is not None:
                metadata.setdefault(parts[1], {})[parts[2]] = dict(instance)
        if metadata:
            doc["metadata"] = metadata
        return doc

    def version_json(self, version, number):
        fmt = self.clock.format
        return {"type": "file_version", "id": version.id, "sha1": version.content.sha1,
                "name": version.name, "size": version.content.size,
                "created_at": fmt(version.created_at), "modified_at": fmt(version.created_at),
                "modified_by": dict(USER), "trashed_at": None, "purged_at": None,
                "version_number": str(number)}

    def versions_json(self, item):
        """The file's earlier versions, newest first, as Box lists them."""
        count = len(item.versions)
        return [self.version_json(v, count - i) for i, v in enumerate(reversed(item.versions))]

    def control_json(self, item):
        doc = self.item_json(item)
        doc.pop("item_collection", None)
        if item.type == "file":
            doc["versions"] = self.versions_json(item)
        doc["metadata"] = ({s: {t: dict(i) for t, i in tmpl.items()}
                            for s, tmpl in item.metadata.items()} or None)
        return doc

    def tree(self):
        """Every item below the root, depth first in folder order: path,
        type, size, sha1 (files) and the "tarvex-md5" property (or None)."""
        out = []

        def walk(folder, prefix):
            for child in folder.children.values():
                path = prefix + "/" + child.name
                properties = child.metadata.get("global", {}).get("properties") or {}
                out.append({"path": path, "type": child.type,
                            "size": self._field(child, "size"),
                            "sha1": child.content.sha1 if child.type == "file" else None,
                            "tarvex-md5": properties.get("tarvex-md5")})
                if child.type == "folder":
                    walk(child, path)

        walk(self.root, "")
        return out

    # -- metadata instances ---------------------------------------------

    def metadata_create(self, item, scope, template, values):
        if item.metadata.get(scope, {}).get(template) is not None:
            raise BoxError(409, "tuple_already_exists", "A resource with this value already exists")
        instance = {"$id": str(uuid.uuid4()),
                    "$parent": "%s_%s" % (item.type, item.id),
                    "$scope": scope, "$template": template,
                    "$type": PROPERTIES_TYPE if template == "properties" else template + "-0",
                    "$typeVersion": 2, "$version": 0, "$canEdit": True}
        for key, value in values.items():
            if key.startswith("$"):
                raise bad_request("Keys starting with '$' are reserved", "schema_validation_failed")
            instance[key] = value
        item.metadata.setdefault(scope, {})[template] = instance
        return instance

    def metadata_get(self, item, scope, template):
        instance = item.metadata.get(scope, {}).get(template)
        if instance is None:
            raise BoxError(404, "instance_not_found", "Instance not found")
        return instance

    def metadata_patch(self, item, scope, template, ops):
        instance = self.metadata_get(item, scope, template)
        updated = dict(instance)
        if not isinstance(ops, list):
            raise bad_request("The body must be a JSON Patch array")
        for op in ops:
            updated = apply_patch_op(updated, op)
        updated["$version"] = instance["$version"] + 1
        item.metadata[scope][template] = updated
        return updated


def apply_patch_op(instance, op):
    """One RFC 6902 operation on a flat metadata instance."""
    if not isinstance(op, dict) or not isinstance(op.get("op"), str) \
            or not isinstance(op.get("path"), str) or not op["path"].startswith("/"):
        raise bad_request("Invalid JSON Patch operation")
    key = op["path"][1:].replace("~1", "/").replace("~0", "~")
    if key.startswith("$") or "/" in key:
        raise bad_request("Invalid JSON Patch path: " + op["path"])
    kind = op["op"]
    if kind in ("add", "replace", "test") and "value" not in op:
        raise bad_request("JSON Patch operation without value")
    if kind == "add":
        instance[key] = op["value"]
    elif kind == "replace":
        if key not in instance:
            raise bad_request("Cannot replace missing key " + key)
        instance[key] = op["value"]
    elif kind == "remove":
        if key not in instance:
            raise bad_request("Cannot remove missing key " + key)
        del instance[key]
    elif kind == "test":
        if instance.get(key) != op["value"]:
            raise BoxError(409, "conflict", "JSON Patch test failed for " + key)
    else:
        raise bad_request("Unsupported JSON Patch op " + kind)
    return instance


def encode_marker(slot):
    return base64.urlsafe_b64encode(("m:%d" % slot).encode()).decode().rstrip("=")


def decode_marker(marker):
    try:
        text = base64.urlsafe_b64decode(marker + "=" * (-len(marker) % 4)).decode()
        if not text.startswith("m:"):
            raise ValueError
        return int(text[2:])
    except (ValueError, UnicodeDecodeError):
        raise bad_request("Invalid marker", "invalid_marker") from None
