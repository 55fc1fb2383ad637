// framework
