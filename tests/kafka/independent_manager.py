#!/usr/bin/python3
"""A configuration manager that shares no code with the router, nor its Kafka client: Debian's python3-kafka.

    independent_manager.py BROKER REQUEST_TOPIC BROADCAST_TOPIC LISTS

LISTS is JSON: {"corvalin_media_nodes": {"version": 1, "data": [..]}, ..}. Announces itself when it is ready, answers
every request on the topic that it names, and prints each request as one line. Lines on standard input are such LISTS in
place of the old ones, after which it announces itself again. Ends with the end of its input.

Belongs to /usr/bin/python3, which sees the packages of Debian. Exit status 77: python3-kafka is not installed.
"""

import json
import sys
import threading
import zlib

try:
    import kafka
except ImportError:
    print("python3-kafka is not installed", file=sys.stderr)
    sys.exit(77)


# The same towards all brokers. Those from 4.0 on hang up on the fetches of a client of 0.11.
API_VERSION = (1, 0)


def payload_of(event):
    return zlib.compress(b"\0" + json.dumps(event).encode())


class Manager:
    def __init__(self, broker, request_topic, broadcast_topic, lists):
        self.lists = lists
        self.broadcast_topic = broadcast_topic
        self.producer = kafka.KafkaProducer(bootstrap_servers=broker, api_version=API_VERSION)
        self.consumer = kafka.KafkaConsumer(bootstrap_servers=broker, api_version=API_VERSION, fetch_max_wait_ms=50)
        partition = kafka.TopicPartition(request_topic, 0)
        self.consumer.assign([partition])
        self.consumer.seek(partition, self.consumer.end_offsets([partition])[partition])

    def send(self, topic, event):
        self.producer.send(topic, payload_of(event), partition=0).get(timeout=30)

    def announce(self):
        self.send(self.broadcast_topic, {"type": "config_manager_started"})

    def answer(self, request):
        if request["type"] == "get_versions":
            versions = {name: entry["version"] for name, entry in self.lists.items()}
            self.send(request["config_topic"], {"type": "config_versions", "data": versions})
        elif request["type"] == "configuration_request":
            name = request["configuration"]
            self.send(request["config_topic"], {"type": name, **self.lists[name]})

    def serve(self):
        for message in self.consumer:
            frame = zlib.decompress(message.value)
            if frame[0] != 0 or message.key is not None or message.headers:
                raise ValueError(f"not a request: {message}")
            print(frame[1:].decode(), flush=True)
            self.answer(json.loads(frame[1:]))


def main():
    broker, request_topic, broadcast_topic, lists = sys.argv[1:]
    manager = Manager(broker, request_topic, broadcast_topic, json.loads(lists))
    threading.Thread(target=manager.serve, daemon=True).start()
    print("ready", flush=True)
    for line in sys.stdin:
        manager.lists = json.loads(line)
        manager.announce()


if __name__ == "__main__":
    main()
