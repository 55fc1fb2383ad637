// routing
