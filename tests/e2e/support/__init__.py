"""What the end-to-end tests stand on: private namespaces, the daemon, its peers, and its logs read
back.
"""
