pytest_plugins = ["ta_kvx.pytest_plugin"]
